#pragma once

#include "base/QelIsa.h"
#include "base/QelVector.h"
#include "mpr/QelImageStackSlabMprRendererHelper.h"
#include "mpr/imp/QelSlabAccumulators.h"
#include "mpr/imp/QelSlabSample.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>

class QelImageStack;
class QelMatrix34;
class QelMemoryManager;
class QelRasterImage;

/// All that the five accumulators share: the fixed-point geometry of the slab, the
/// block test, the slice tables and the choice of row body. A derived class only says
/// how a pixel takes a sample in and where its accumulators lie.
///
/// Owned by one worker and used from its thread only. Reads the stack and its
/// fixed-point accelerator, which must stay unchanged while the helper lives; writes
/// only the rows of the target and flag images that ProcessRow names.
class QelSlabHelperBase : public QelImageStackSlabMprRendererHelper {
public:
    ~QelSlabHelperBase() override;

    /// Reads the stack and works out the geometry; once, right after construction.
    /// False when the stack can't be sampled (no accelerator, pixels not 16 bits) or
    /// memory runs out.
    [[nodiscard]] bool Init(const QelImageStack& stack, const QelMatrix34& viewMatrix, std::int32_t lastSampleIndex,
                            float sliceSpacing, std::int32_t bandHeight, std::int32_t tileWidth,
                            std::int32_t sampleChunk);

    QelFixedPoint3 PixelPosition(std::int32_t x, std::int32_t y) const override;
    QelFixedPoint3 RowStep() const override { return m_rowStep; }
    QelFixedPoint3 SlabStep() const override { return m_slabStep; }
    void SetBlockSize(std::int32_t tileWidth, std::int32_t bandHeight, std::int32_t lastSampleOffset) override;
    bool BlockTouchesVolume(const QelFixedPoint3& p) const override;
    void ProcessRow(std::int32_t y, std::int32_t y0, std::int32_t xFirst, std::int32_t xLast, std::int32_t sFirst,
                    std::int32_t sLast, QelFixedPoint3 p, QelFixedPoint3 q, std::int32_t hint,
                    std::int32_t& firstHint, std::int32_t& laterHint) override;

    /// The fixed step from one canvas pixel to the next in x.
    [[nodiscard]] QelFixedPoint3 XStep() const noexcept { return m_xStep; }
    /// Whether rows with no z in the x step take the plane path.
    [[nodiscard]] bool UsesPlanePath() const noexcept { return !m_generalOnly && m_xStep.Z == 0; }
    /// For tests: every row through the general path, also where the plane path
    /// would serve. The results are the same; only the speed differs.
    void SetGeneralPathOnly(bool on) noexcept { m_generalOnly = on; }
    /// The level of the row bodies, chosen when the helper was made.
    [[nodiscard]] QelIsa Isa() const noexcept { return m_isa; }
    /// For tests: take general rows lane by lane even where the lanes' addresses
    /// could be worked out together. Only the speed differs.
    void SetLaneByLane() noexcept { m_volume.UniformPitch = false; }
    /// Splits the slices into segments of origins at most `reach` bytes from the
    /// segment's first (at most 2^31 less a slice's span). Tests pass less, so that
    /// runs of slices cross segments as they would in a stack spread over memory.
    void SetSegmentReach(std::int64_t reach) noexcept;

protected:
    QelSlabHelperBase(QelMemoryManager* memoryManager, QelRasterImage* targetImage, QelRasterImage* flagImage,
                      bool direct, const QelSlabPolicy& policy) noexcept;


private:
    QelMemoryManager* m_memoryManager;
    QelRasterImage* m_target;
    QelRasterImage* m_flags;
    bool m_direct;  // the target is the canvas, addressed by canvas row
    bool m_generalOnly = false;
    QelSlabPolicy m_policy;
    QelIsa m_isa = QelIsa::Scalar;
    const QelSlabKernels* m_kernels = nullptr;

    void* m_tables = nullptr;  // slices and coarse index, from the memory manager
    QelSlabSlice* m_slices = nullptr;  // in m_tables
    // The volume's columns, kColumns of Count + kSlabColumnPad entries each, in
    // m_tables; the segment offsets change with the segment reach.
    static constexpr std::size_t kColumns = 4;
    std::int32_t* m_offsetColumn = nullptr;
    QelSlabVolume m_volume{};
    std::int32_t m_width = 0;
    std::int32_t m_height = 0;

    // Set-up in 32-bit floats, each sum left to right: every build and every level
    // gets the same fixed-point values from it.
    QelVector3 m_start{0, 0, 0};  // sample 0 of canvas pixel (0, 0), in voxels
    QelVector3 m_xAxis{0, 0, 0};  // one canvas pixel in x, in voxels
    QelVector3 m_yAxis{0, 0, 0};
    float m_zScale = 0.0f;   // the accelerator's scale and offset, as floats
    float m_zOffset = 0.0f;

    QelFixedPoint3 m_xStep;
    QelFixedPoint3 m_rowStep;
    QelFixedPoint3 m_slabStep;

    // Inclusive limits of BlockTouchesVolume, per axis.
    std::int64_t m_blockLow[3] = {0, 0, 0};
    std::int64_t m_blockHigh[3] = {-1, -1, -1};
};

/// Mean projection: the target is a band-sized 32-bit image of sums on the unsigned
/// scale, the flag image a 16-bit image of sample counts, both addressed by row y - y0.
class AVIP_Implementation final : public QelSlabHelperBase {
public:
    // Signed or not, the sum is on the unsigned scale; the band's finish removes
    // 0x8000 from the mean of signed data.
    AVIP_Implementation(QelMemoryManager* memoryManager, QelRasterImage* targetImage,
                        QelRasterImage* flagImage) noexcept
        : QelSlabHelperBase(memoryManager, targetImage, flagImage, false, {true, 0, 0})
    {
    }
};

/// Highest (QelMip) or lowest (QelMinip) projection of signed (short) or unsigned
/// (unsigned short) pixels, in place: the target holds the 16-bit values, the canvas
/// itself when `direct` (addressed by canvas row y) or a band image (row y - y0); the
/// flag image holds one byte per pixel, 1 once a sample was taken (row y - y0).
template <typename TPixel, typename TPolicy>
class MIP_Implementation final : public QelSlabHelperBase {
    static_assert(std::is_same_v<TPixel, short> || std::is_same_v<TPixel, unsigned short>);
    static_assert(std::is_same_v<TPolicy, QelMip> || std::is_same_v<TPolicy, QelMinip>);

public:
    MIP_Implementation(QelMemoryManager* memoryManager, QelRasterImage* targetImage, QelRasterImage* flagImage,
                       bool direct) noexcept
        : QelSlabHelperBase(memoryManager, targetImage, flagImage, direct,
                            {false, std::is_signed_v<TPixel> ? std::uint16_t{0} : std::uint16_t{0x8000},
                             std::is_same_v<TPolicy, QelMinip> ? std::uint16_t{0xFFFF} : std::uint16_t{0}})
    {
    }
};
