#pragma once

#include "ax/primitives/PixelFormat.h"
#include "base/QelIntRange.h"

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
};

}  // namespace Ax::Rendering
