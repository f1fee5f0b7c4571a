#include "PrimitiveConversions.h"

#include "ax/system/Exception.h"
#include "image/QelRgbColorSpec.h"

#include <new>
#include <string>

namespace Ax::Rendering {

std::unique_ptr<QelRgbColorSpec> PrimitiveConversions::RGBPixelFormatToQelRgbColorSpec(
    const Ax::Primitives::RGBPixelFormat& format)
{
    std::unique_ptr<QelRgbColorSpec> spec = QelRgbColorSpec::New();
    if (!spec)
        throw std::bad_alloc();
    switch (format.BytesPerPixel()) {
    case 2:
        spec->SetAccess(QelRgbColorSpec::Access::Word16, 2);
        break;
    case 3:
        spec->SetAccess(QelRgbColorSpec::Access::ByteSequence, 3);
        break;
    case 4:
        spec->SetAccess(QelRgbColorSpec::Access::Word32, 4);
        break;
    default:
        throw Ax::System::ArgumentException("Invalid bytes per pixel: " + std::to_string(format.BytesPerPixel()));
    }
    spec->SetMasks(format.RedMask(), format.GreenMask(), format.BlueMask(), format.AlphaMask());
    return spec;
}

}  // namespace Ax::Rendering
