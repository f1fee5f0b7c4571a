#include "PrimitiveConversions.h"

#include "ax/system/Exception.h"
#include "image/QelRgbColorSpec.h"

#include <cmath>
#include <new>
#include <string>

namespace Ax::Rendering {

namespace {

// A plain cast is undefined outside the int32 range; saturating there maps an
// infinite host edge to the native infinite bound.
[[nodiscard]] std::int32_t SaturatedInt32(double value) noexcept
{
    if (!(value > QelIntRange::kLowest))
        return QelIntRange::kLowest;
    if (!(value < QelIntRange::kHighest))
        return QelIntRange::kHighest;
    return static_cast<std::int32_t>(value);
}

[[nodiscard]] QelIntRange VoxelRange(double low, double high) noexcept
{
    return {SaturatedInt32(std::floor(low)), SaturatedInt32(std::ceil(high) - 1.0)};
}

[[nodiscard]] bool IsNamed(ProjectionMode mode) noexcept
{
    return mode == ProjectionMode::Maximum || mode == ProjectionMode::Minimum || mode == ProjectionMode::Average;
}

}  // namespace

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

QelVector3 PrimitiveConversions::Vector3(const Ax::Primitives::Vector3& vector) noexcept
{
    return {static_cast<float>(vector.X), static_cast<float>(vector.Y), static_cast<float>(vector.Z)};
}

QelIntBBox3 PrimitiveConversions::Bounds3(const Ax::Primitives::Bounds3& bounds) noexcept
{
    return {VoxelRange(bounds.Left, bounds.Right), VoxelRange(bounds.Top, bounds.Bottom),
            VoxelRange(bounds.Front, bounds.Back)};
}

// Both enumerations share the public numbering, so a named value converts by number.

QelIPRenderMode PrimitiveConversions::ProjectionModeToQelIPRenderMode(ProjectionMode projection_mode)
{
    if (!IsNamed(projection_mode))
        throw Ax::System::ArgumentException("Unknown projection mode", "projection_mode");
    return static_cast<QelIPRenderMode>(projection_mode);
}

QelSlabMode::QelSlabModeEnum PrimitiveConversions::ToQelSlabEnum(ProjectionMode slabMode)
{
    if (!IsNamed(slabMode))
        throw Ax::System::ArgumentOutOfRangeException("Unsupported projection mode: " + ToString(slabMode),
                                                      "slabMode");
    return static_cast<QelSlabMode::QelSlabModeEnum>(slabMode);
}

}  // namespace Ax::Rendering
