#include "mpr/imp/QelImageStackSlabMprRendererHelperImp.h"

#include "base/QelMatrix34.h"
#include "base/QelMemoryManager.h"
#include "graphics/QelRenderEnums.h"
#include "image/QelRasterImage.h"
#include "image_stack/QelImageStack.h"
#include "image_stack/QelImageStackFixedPointAccelerator.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <new>

namespace {

constexpr float kPositionLow = -32768.0f;
constexpr float kPositionHigh = 32767.0f;

// NaN goes to the low end, so that a degenerate matrix still gives defined positions.
float Clamp(float value, float low, float high) noexcept
{
    return value >= low ? (value <= high ? value : high) : low;
}

// Truncation toward 0, with values beyond int32 (a huge step, a very fine fixed z
// scale) held at its ends instead of being undefined.
std::int32_t TruncToInt32(float value) noexcept
{
    if (!(value > -2147483648.0f))
        return INT32_MIN;
    if (!(value < 2147483648.0f))
        return INT32_MAX;
    return static_cast<std::int32_t>(value);
}

QelFixedPoint3 ToFixedStep(const QelVector3& v, float zScale) noexcept
{
    return {TruncToInt32(v.X() * 65536.0f), TruncToInt32(v.Y() * 65536.0f), TruncToInt32(v.Z() * zScale)};
}

}  // namespace

QelSlabHelperBase::QelSlabHelperBase(QelMemoryManager* memoryManager, QelRasterImage* targetImage,
                                     QelRasterImage* flagImage, bool direct, const QelSlabPolicy& policy) noexcept
    : m_memoryManager(memoryManager), m_target(targetImage), m_flags(flagImage), m_direct(direct), m_policy(policy)
{
}

QelSlabHelperBase::~QelSlabHelperBase()
{
    if (m_tables)
        m_memoryManager->Free(m_tables);
}

bool QelSlabHelperBase::Init(const QelImageStack& stack, const QelMatrix34& viewMatrix, std::int32_t lastSampleIndex,
                             float sliceSpacing, std::int32_t bandHeight, std::int32_t tileWidth,
                             std::int32_t sampleChunk)
{
    const QelImageStackFixedPointAccelerator* accelerator = stack.FixedPointAccelerator();
    if (!accelerator || accelerator->Count() < 1 || stack.BytesPerPixel() != 2)
        return false;

    // Slice tables. The fixed scale keeps the last slice at or below 2^30, so the
    // coarse index has at most 16385 entries.
    const std::int32_t count = accelerator->Count();
    const std::int32_t lastFixedZ = std::max(accelerator->LastFixedZ(), 0);
    const std::int32_t coarseCount = (lastFixedZ >> 16) + 1;
    const std::size_t sliceBytes = sizeof(QelSlabSlice) * (std::size_t(count) + kSlabSentinels);
    const std::size_t columnLength = std::size_t(count) + kSlabColumnPad;
    const std::size_t coarseLength = std::size_t(coarseCount) + kSlabColumnPad;
    m_tables = m_memoryManager->Alloc(sliceBytes + sizeof(std::int32_t) * (kColumns * columnLength + coarseLength));
    if (!m_tables)
        return false;
    auto* slices = static_cast<QelSlabSlice*>(m_tables);
    auto* columns = reinterpret_cast<std::int32_t*>(static_cast<std::uint8_t*>(m_tables) + sliceBytes);
    std::int32_t* coarse = columns + kColumns * columnLength;
    const QelFixedPointSliceRecord* records = accelerator->Records();
    for (std::int32_t k = 0; k < count; ++k) {
        const bool last = k == count - 1;
        const std::int32_t gap = last ? 0 : records[k + 1].FixedZ - records[k].FixedZ;
        // A gap of zero width is never chosen (its slice's range is empty), so it
        // needs no factor and nothing divides by 0.
        slices[k] = {records[k].Origin, records[k].BytesPerLine, records[k].FixedZ,
                     last ? records[k].FixedZ + 1 : records[k + 1].FixedZ,
                     gap > 0 ? 65536.0f / static_cast<float>(gap) : 0.0f,
                     records[k].Origin ? 0 : -1, nullptr, 0};
    }
    for (std::int32_t k = count; k < count + kSlabSentinels; ++k)
        slices[k] = {nullptr, 0, INT32_MAX, INT32_MAX, 0.0f, -1, nullptr, 0};
    std::int32_t coarseSteps = 0;
    for (std::int32_t unit = 0, k = 0; unit < coarseCount; ++unit) {
        while (k + 1 < count && slices[k + 1].FixedZ <= (unit << 16))
            ++k;
        coarse[unit] = k;
        // The longest walk from this entry: to the slice of the range's last z.
        const std::int32_t end = std::min(lastFixedZ, static_cast<std::int32_t>((std::int64_t{unit} << 16) + 0xFFFF));
        std::int32_t walk = k;
        while (end >= slices[walk].GapEnd)
            ++walk;
        coarseSteps = std::max(coarseSteps, walk - k);
    }
    for (std::size_t i = std::size_t(coarseCount); i < coarseLength; ++i)
        coarse[i] = coarse[coarseCount - 1];
    m_volume.Slices = slices;
    m_volume.Coarse = coarse;
    std::int32_t* factors = columns + columnLength;
    m_offsetColumn = columns + 2 * columnLength;
    std::int32_t* missing = columns + 3 * columnLength;
    m_volume.Columns = {columns, factors, m_offsetColumn, missing, coarseSteps};
    for (std::size_t k = 0; k < columnLength; ++k) {
        const QelSlabSlice& slice = slices[std::min<std::size_t>(k, std::size_t(count))];
        columns[k] = slice.FixedZ;
        std::memcpy(&factors[k], &slice.GapFactor, sizeof(float));
        missing[k] = slice.Missing;
    }
    m_volume.Count = count;
    m_volume.AllImages = std::all_of(slices, slices + count, [](const QelSlabSlice& slice) { return slice.Origin; });
    m_volume.LastFixedZ = lastFixedZ;
    for (std::int32_t k = 0; k < count && !m_volume.SafeOrigin; ++k) {
        m_volume.SafeOrigin = slices[k].Origin;
        m_volume.SafeBytesPerLine = slices[k].BytesPerLine;
    }
    m_width = stack.Width();
    m_height = stack.Height();
    // Vector bodies compute a voxel's offset in its slice in 32 bits.
    m_volume.Pitch = m_volume.SafeBytesPerLine;
    const std::int64_t span = std::abs(std::int64_t{m_height} * m_volume.Pitch) + 2 * std::int64_t{m_width};
    m_volume.UniformPitch = span <= INT32_MAX;
    m_slices = slices;
    SetSegmentReach(INT32_MAX - span);
    for (std::int32_t k = 0; k < count; ++k)
        m_volume.UniformPitch &= !slices[k].Origin || slices[k].BytesPerLine == m_volume.Pitch;
    const auto limit = [](std::int32_t size) {
        return static_cast<std::int32_t>(std::clamp<std::int64_t>((std::int64_t{size} - 1) * 65536, 0, INT32_MAX));
    };
    m_volume.WidthLimit = limit(m_width);
    m_volume.HeightLimit = limit(m_height);
    m_volume.Bias = stack.IsSigned() ? 0 : 0x8000;
    m_volume.HasPadding = stack.HasPadding();
    m_volume.Padding = m_volume.HasPadding ? static_cast<std::uint16_t>(stack.PaddingValue()) : 0;

    m_isa = QelBestIsa();
    m_kernels = &QelSlabKernelsFor(m_isa);

    // Geometry: canvas to volume, the slab centred on the canvas plane. All of it in
    // 32-bit floats, each sum left to right, and the build forbids fused
    // multiply-adds, so that every build and every level of the row bodies starts
    // from the same fixed-point positions; the inverse is QelMatrix34's, whose
    // bodies agree bit for bit.
    m_zScale = static_cast<float>(accelerator->Scale());
    m_zOffset = static_cast<float>(accelerator->Offset());
    const QelMatrix34 inverse = viewMatrix.Inverse();
    QelVector3 origin;
    QelVector3 zAxis;
    inverse.TransformPoint(QelVector3(0.0f, 0.0f, 0.0f), origin);
    inverse.TransformVector(QelVector3(1.0f, 0.0f, 0.0f), m_xAxis);
    inverse.TransformVector(QelVector3(0.0f, 1.0f, 0.0f), m_yAxis);
    inverse.TransformVector(QelVector3(0.0f, 0.0f, 1.0f), zAxis);
    const float length = std::sqrt((zAxis.X() * zAxis.X() + zAxis.Y() * zAxis.Y()) + zAxis.Z() * zAxis.Z());
    QelVector3 slab(0.0f, 0.0f, 0.0f);
    if (length > 0.0f)
        slab = QelVector3(zAxis.X() / length * sliceSpacing, zAxis.Y() / length * sliceSpacing,
                          zAxis.Z() / length * sliceSpacing);
    const auto lastIndex = static_cast<float>(lastSampleIndex);
    m_start = QelVector3(origin.X() - slab.X() * lastIndex * 0.5f, origin.Y() - slab.Y() * lastIndex * 0.5f,
                         origin.Z() - slab.Z() * lastIndex * 0.5f);
    // Steps are differences of positions: the offset of the z scale belongs to
    // positions alone.
    m_xStep = ToFixedStep(m_xAxis, m_zScale);
    m_rowStep = ToFixedStep(m_yAxis, m_zScale);
    m_slabStep = ToFixedStep(slab, m_zScale);

    SetBlockSize(tileWidth, bandHeight, sampleChunk);
    return true;
}

void QelSlabHelperBase::SetSegmentReach(std::int64_t reach) noexcept
{
    // Greedily from the first slice: a slice farther than `reach` from the current
    // base starts the next segment.
    const std::uint8_t* segment = m_volume.SafeOrigin;
    for (std::int32_t k = 0; k < m_volume.Count + kSlabSentinels; ++k) {
        QelSlabSlice& slice = m_slices[k];
        slice.SegmentOffset = 0;
        if (slice.Origin) {
            const std::int64_t distance =
                reinterpret_cast<std::intptr_t>(slice.Origin) - reinterpret_cast<std::intptr_t>(segment);
            if (std::abs(distance) > reach)
                segment = slice.Origin;
            slice.SegmentOffset = static_cast<std::int32_t>(slice.Origin - segment);
        }
        slice.SegmentBase = segment;
    }
    // Past the last slice every window reads the first sentinel's offset.
    for (std::size_t k = 0; k < std::size_t(m_volume.Count) + kSlabColumnPad; ++k)
        m_offsetColumn[k] = m_slices[std::min<std::size_t>(k, std::size_t(m_volume.Count))].SegmentOffset;
}

QelFixedPoint3 QelSlabHelperBase::PixelPosition(std::int32_t x, std::int32_t y) const
{
    const auto fx = static_cast<float>(x);
    const auto fy = static_cast<float>(y);
    const float px = Clamp((m_start.X() + m_xAxis.X() * fx) + m_yAxis.X() * fy, kPositionLow, kPositionHigh);
    const float py = Clamp((m_start.Y() + m_xAxis.Y() * fx) + m_yAxis.Y() * fy, kPositionLow, kPositionHigh);
    const float pz = Clamp((m_start.Z() + m_xAxis.Z() * fx) + m_yAxis.Z() * fy, kPositionLow, kPositionHigh);
    // |px| <= 32768, so px * 65536 is exact and inside int32.
    return {static_cast<std::int32_t>(px * 65536.0f), static_cast<std::int32_t>(py * 65536.0f),
            TruncToInt32(pz * m_zScale + m_zOffset)};
}

void QelSlabHelperBase::SetBlockSize(std::int32_t tileWidth, std::int32_t bandHeight, std::int32_t lastSampleOffset)
{
    // The box of the block's eight corners per axis: the lowest corner adds every
    // negative edge, the highest every positive one. In 64 bits, so that no step
    // size can wrap the box.
    const std::int64_t counts[3] = {std::int64_t{tileWidth} + 1, std::int64_t{bandHeight} + 1,
                                    std::int64_t{lastSampleOffset} + 1};
    const QelFixedPoint3* edges[3] = {&m_xStep, &m_rowStep, &m_slabStep};
    std::int64_t lowest[3] = {0, 0, 0};
    std::int64_t highest[3] = {0, 0, 0};
    for (int e = 0; e < 3; ++e) {
        const std::int64_t edge[3] = {counts[e] * edges[e]->X, counts[e] * edges[e]->Y, counts[e] * edges[e]->Z};
        for (int axis = 0; axis < 3; ++axis) {
            lowest[axis] += std::min<std::int64_t>(edge[axis], 0);
            highest[axis] += std::max<std::int64_t>(edge[axis], 0);
        }
    }
    // Reject only a block whose whole box lies more than a voxel outside.
    m_blockLow[0] = -highest[0] - 65536;
    m_blockHigh[0] = std::int64_t{m_width} * 65536 - lowest[0];
    m_blockLow[1] = -highest[1] - 65536;
    m_blockHigh[1] = std::int64_t{m_height} * 65536 - lowest[1];
    m_blockLow[2] = std::int64_t{m_volume.Slices ? m_volume.Slices[0].FixedZ : 0} - highest[2] - 65536;
    m_blockHigh[2] = std::int64_t{m_volume.LastFixedZ} - lowest[2] + 65536;
}

bool QelSlabHelperBase::BlockTouchesVolume(const QelFixedPoint3& p) const
{
    const std::int64_t at[3] = {p.X, p.Y, p.Z};
    for (int axis = 0; axis < 3; ++axis)
        if (at[axis] < m_blockLow[axis] || at[axis] > m_blockHigh[axis])
            return false;
    return true;
}

void QelSlabHelperBase::ProcessRow(std::int32_t y, std::int32_t y0, std::int32_t xFirst, std::int32_t xLast,
                                   std::int32_t sFirst, std::int32_t sLast, QelFixedPoint3 p, QelFixedPoint3 q,
                                   std::int32_t hint, std::int32_t& firstHint, std::int32_t& laterHint)
{
    // Positions within the row come from p and q by fixed-point steps only: the
    // caller takes one PixelPosition per tile and band and steps from there, so
    // neighbouring tiles may differ by the truncation of the steps, never by how a
    // body computes.
    firstHint = hint;
    laterHint = hint;
    sFirst = std::max(sFirst, 0);
    if (xLast < xFirst || sLast < sFirst)
        return;
    QelSlabRow row{};
    row.Target = m_target->PixelAddress(xFirst, m_direct ? y : y - y0);
    row.Flags = m_flags->PixelAddress(xFirst, y - y0);
    row.Pixels = xLast - xFirst + 1;
    row.FirstSample = sFirst;
    row.LastSample = sLast;
    row.P = p;
    row.Q = q;
    row.XStep = m_xStep;
    row.SlabStep = m_slabStep;
    row.FirstHint = hint;
    row.LaterHint = hint;
    if (UsesPlanePath())
        m_kernels->planeRow(m_volume, m_policy, row);
    else
        m_kernels->generalRow(m_volume, m_policy, row);
    firstHint = row.FirstHint;
    laterHint = row.LaterHint;
}

std::unique_ptr<QelImageStackSlabMprRendererHelper> QelImageStackSlabMprRendererHelper::New(
    QelMemoryManager* memoryManager, const QelImageStack& stack, QelRasterImage* targetImage,
    QelRasterImage* flagImage, const QelMatrix34& viewMatrix, std::int32_t slabMode, std::int32_t lastSampleIndex,
    float sliceSpacing, std::int32_t bandHeight, std::int32_t tileWidth, std::int32_t sampleChunk, bool direct)
{
    if (!memoryManager)
        memoryManager = QelMemoryManager::GetDefault();
    if (!memoryManager || !targetImage || !flagImage)
        return nullptr;
    const bool isSigned = stack.IsSigned();
    std::unique_ptr<QelSlabHelperBase> helper;
    switch (QelSlabMode::Effective(static_cast<QelSlabMode::QelSlabModeEnum>(slabMode))) {
    case QelSlabMode::MIP:
        if (isSigned)
            helper.reset(new (std::nothrow) MIP_Implementation<short, QelMip>(memoryManager, targetImage, flagImage,
                                                                               direct));
        else
            helper.reset(new (std::nothrow) MIP_Implementation<unsigned short, QelMip>(memoryManager, targetImage,
                                                                                        flagImage, direct));
        break;
    case QelSlabMode::MINIP:
        if (isSigned)
            helper.reset(new (std::nothrow) MIP_Implementation<short, QelMinip>(memoryManager, targetImage,
                                                                                 flagImage, direct));
        else
            helper.reset(new (std::nothrow) MIP_Implementation<unsigned short, QelMinip>(memoryManager, targetImage,
                                                                                          flagImage, direct));
        break;
    case QelSlabMode::AVIP:
        // The sums need a 32-bit image of their own; the canvas can't hold them.
        if (direct)
            return nullptr;
        helper.reset(new (std::nothrow) AVIP_Implementation(memoryManager, targetImage, flagImage));
        break;
    }
    if (!helper || !helper->Init(stack, viewMatrix, lastSampleIndex, sliceSpacing, bandHeight, tileWidth, sampleChunk))
        return nullptr;
    return helper;
}
