#pragma once

#include "ax/primitives/Bounds3.h"
#include "ax/primitives/PixelFormat.h"
#include "ax/primitives/Vector3.h"
#include "ax/rendering/ProjectionMode.h"
#include "base/QelIntRange.h"
#include "base/QelVector.h"
#include "graphics/QelRenderEnums.h"

#include <memory>

class QelRgbColorSpec;

namespace Ax::Rendering {

/// Turns the sibling library's value types into their native counterparts.
class PrimitiveConversions {
public:
    PrimitiveConversions() = delete;

    /// A new spec with the format's masks, loaded as a 16-bit word (2 bytes per
    /// pixel), three bytes most significant first (3) or a 32-bit word (4). Throws
    /// ArgumentException "Invalid bytes per pixel: <n>" for any other width.
    [[nodiscard]] static std::unique_ptr<QelRgbColorSpec> RGBPixelFormatToQelRgbColorSpec(
        const Ax::Primitives::RGBPixelFormat& format);

    /// 0..length-1. A length of 0 gives (0, -1), which has no pixels but is not the
    /// canonical empty range: the native size checks refuse it.
    [[nodiscard]] static constexpr QelIntRange RangeFromZero(std::int32_t length) noexcept
    {
        return {0, length - 1};
    }

    /// Each component narrowed to float.
    [[nodiscard]] static QelVector3 Vector3(const Ax::Primitives::Vector3& vector) noexcept;

    /// The voxels a host box touches: [floor(Left), ceil(Right) - 1] in x, likewise
    /// Top to Bottom in y and Front to Back in z, so that integer edges 0 and 128 give
    /// 0..127. A bound beyond the 32-bit range, an infinite one included, becomes the
    /// infinite bound on its side; a NaN edge becomes the lowest bound.
    [[nodiscard]] static QelIntBBox3 Bounds3(const Ax::Primitives::Bounds3& bounds) noexcept;

    /// The same numbering. Throws ArgumentException "Unknown projection mode" for
    /// parameter "projection_mode" for a value outside the enumeration.
    [[nodiscard]] static QelIPRenderMode ProjectionModeToQelIPRenderMode(ProjectionMode projection_mode);

    /// The same numbering. Throws ArgumentOutOfRangeException "Unsupported projection
    /// mode: <name>" for parameter "slabMode" for a value outside the enumeration,
    /// which has no name but its number. The reformat renderer's conversion.
    [[nodiscard]] static QelSlabMode::QelSlabModeEnum ToQelSlabEnum(ProjectionMode slabMode);
};

}  // namespace Ax::Rendering
