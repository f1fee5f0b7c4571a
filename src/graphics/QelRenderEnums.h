#pragma once

#include <cstdint>

// The enumerations of the render record. The public layer and the renderers pass
// them as 32-bit integers, and a value outside the named ones can reach a renderer
// unchanged, so every enumeration has a fixed 32-bit underlying type: any 32-bit
// value is a valid object of it.

/// How a slab's samples reduce to one pixel.
struct QelSlabMode {
    enum QelSlabModeEnum : std::int32_t {
        MIP = 0,    // highest sample of the slab
        MINIP = 1,  // lowest sample of the slab
        AVIP = 2,   // mean of the slab; every value but MIP and MINIP selects it
    };

    QelSlabMode() = delete;

    /// The reduction a renderer runs for `mode`.
    [[nodiscard]] static constexpr QelSlabModeEnum Effective(QelSlabModeEnum mode) noexcept
    {
        return mode == MIP || mode == MINIP ? mode : AVIP;
    }
};

/// The reduction of the intensity projection renderer.
enum class QelIPRenderMode : std::int32_t {
    MIP = 0,  // the running value starts at the lowest possible value
    MINIP = 1,
    AVIP = 2,
};

/// The priority of a worker thread while it does a piece of a render.
struct QelThreadPriority {
    enum QelThreadPriorityEnum : std::int32_t {
        Caller = 0,       // the priority the record captured from the caller of StartDraw
        Normal = 1,
        BelowNormal = 2,  // as is every value but Caller and Normal
    };

    QelThreadPriority() = delete;

    /// The operating-system priority level a worker takes for `priority`: 0 is normal,
    /// -1 below normal, and `callerPriority` is the level the record captured.
    [[nodiscard]] static constexpr std::int32_t LevelOf(QelThreadPriorityEnum priority,
                                                        std::int32_t callerPriority) noexcept
    {
        switch (priority) {
        case Caller:
            return callerPriority;
        case Normal:
            return 0;
        default:
            return -1;
        }
    }
};

/// The filter of the final warp to the canvas.
enum class QelWarperSamplingMode : std::int32_t {
    Bilinear = 1,
    Bicubic = 2,
};

/// How the volume is sampled.
enum class QelSamplingMode : std::int32_t {
    Standard = 1,          // every public render
    AcceleratorData = 2,   // the stack's accelerators build their extra data before the draw
    IntensityVariant = 3,  // a further worker variant of the intensity renderer
};

/// Whether an object of a render is shaded.
enum class QelBitTreeProperty : std::int32_t {
    Unshaded = 0,
    Shaded = 1,
};

/// The kind of a light. Values 1 and 2 exist but nothing sets or compares them.
enum class Light_Type : std::int32_t {
    Raycaster = 0,  // the default light of the ray casters
    Shaded = 3,     // the default: the light of the shaded renderers
};

/// The kernel of the tri-cubic sampler. Any value but CatmullRom selects the cubic
/// B-spline.
enum class Cubic_Filter : std::int32_t {
    CatmullRom = 0,
};
