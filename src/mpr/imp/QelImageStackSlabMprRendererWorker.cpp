#include "mpr/imp/QelImageStackSlabMprRendererWorker.h"

#include "graphics/QelRenderSpec.h"
#include "graphics/QelThreadScopeGuard.h"
#include "image/QelRasterImage.h"
#include "image_stack/QelImageStack.h"
#include "mpr/QelImageStackSlabMprRendererHelper.h"
#include "threaded/QelAborter.h"

#include <algorithm>
#include <cstring>

namespace {

// Fixed-point positions wrap like the 32-bit registers they were made for; unsigned
// arithmetic keeps that defined.
[[nodiscard]] std::int32_t Wrap(std::uint32_t value) noexcept
{
    return static_cast<std::int32_t>(value);
}

[[nodiscard]] QelFixedPoint3 Plus(const QelFixedPoint3& a, const QelFixedPoint3& b) noexcept
{
    return {Wrap(static_cast<std::uint32_t>(a.X) + static_cast<std::uint32_t>(b.X)),
            Wrap(static_cast<std::uint32_t>(a.Y) + static_cast<std::uint32_t>(b.Y)),
            Wrap(static_cast<std::uint32_t>(a.Z) + static_cast<std::uint32_t>(b.Z))};
}

[[nodiscard]] QelFixedPoint3 Times(const QelFixedPoint3& a, std::int32_t n) noexcept
{
    const auto factor = static_cast<std::uint32_t>(n);
    return {Wrap(static_cast<std::uint32_t>(a.X) * factor), Wrap(static_cast<std::uint32_t>(a.Y) * factor),
            Wrap(static_cast<std::uint32_t>(a.Z) * factor)};
}

// What a MIP or MinIP pixel holds before its first sample. The flag byte, not this
// value, tells a pixel without samples, so the value may be anything a sample can be.
[[nodiscard]] std::uint16_t StartValue(QelSlabMode::QelSlabModeEnum mode, bool isSigned) noexcept
{
    if (mode == QelSlabMode::MIP)
        return isSigned ? 0x8000 : 0;
    return isSigned ? 0x7FFF : 0xFFFF;
}

// Canvas pixels go through memcpy: a caller's buffer need not be 2-byte aligned.
void Store16(std::uint8_t* address, std::uint16_t value) noexcept
{
    std::memcpy(address, &value, sizeof value);
}

[[nodiscard]] std::uint16_t Load16(const std::uint8_t* address) noexcept
{
    std::uint16_t value;
    std::memcpy(&value, address, sizeof value);
    return value;
}

[[nodiscard]] std::uint32_t Load32(const std::uint8_t* address) noexcept
{
    std::uint32_t value;
    std::memcpy(&value, address, sizeof value);
    return value;
}

// Floor division: canvas rows may start below 0.
[[nodiscard]] std::int32_t FloorDiv(std::int32_t value, std::int32_t divisor) noexcept
{
    const std::int32_t quotient = value / divisor;
    return (value % divisor != 0 && (value < 0) != (divisor < 0)) ? quotient - 1 : quotient;
}

}  // namespace

QelSlabMprTiling QelSlabMprTiling::ForView(const QelMatrix34& volumeToCanvas) noexcept
{
    // Canvas x grows along the normal transformation of the canvas-to-volume matrix
    // applied to (1, 0, 0), which is row 0 of the volume-to-canvas matrix: read from
    // there it needs no inversion and can't fail on a singular view. Only exact zeros
    // are tested, so its length plays no part; a zero row would normalise to NaNs and
    // keeps the default.
    const float x = volumeToCanvas.Elem(0, 0);
    const float y = volumeToCanvas.Elem(0, 1);
    const float z = volumeToCanvas.Elem(0, 2);
    QelSlabMprTiling tiling;
    if (y == 0.0f && z == 0.0f && x != 0.0f) {
        tiling.TileWidth = 64;
    } else if (x == 0.0f && z == 0.0f && y != 0.0f) {
        tiling.TileWidth = 16;
        tiling.SampleChunk = 32;
    }
    return tiling;
}

std::int32_t QelSlabChunkEnd(std::int32_t first, std::int32_t last, std::int32_t chunk) noexcept
{
    const std::int32_t end = std::min(first + chunk - 1, last);
    const std::int32_t left = last - end;
    if (left > 0 && left < chunk / 2)
        return first + (last - first) / 2;
    return end;
}

QelIntRange QelSlabBands(const QelIntRange& rows, std::int32_t bandHeight) noexcept
{
    if (rows.IsEmpty())
        return QelIntRange::Empty();
    return {FloorDiv(rows.Min, bandHeight), FloorDiv(rows.Max, bandHeight)};
}

QelIntRange QelSlabBandRows(std::int32_t band, const QelIntRange& rows, std::int32_t bandHeight) noexcept
{
    const std::int64_t first = std::int64_t{band} * bandHeight;
    const std::int64_t last = first + bandHeight - 1;
    if (rows.IsEmpty() || last < rows.Min || first > rows.Max)
        return QelIntRange::Empty();
    return {static_cast<std::int32_t>(std::max<std::int64_t>(first, rows.Min)),
            static_cast<std::int32_t>(std::min<std::int64_t>(last, rows.Max))};
}

QelImageStackSlabMprRendererWorker::QelImageStackSlabMprRendererWorker(QelMemoryManager* memoryManager) noexcept
    : m_memoryManager(memoryManager)
{
}

QelImageStackSlabMprRendererWorker::~QelImageStackSlabMprRendererWorker() = default;

bool QelImageStackSlabMprRendererWorker::Prepare(const QelSlabMprDraw& draw, QelRasterImage* sums,
                                                 QelRasterImage* counts)
{
    m_helper.reset();
    m_draw = &draw;
    m_direct = draw.SlabMode != QelSlabMode::AVIP;
    m_target = m_direct ? draw.Canvas : sums;
    m_counts = counts;
    m_helper = QelImageStackSlabMprRendererHelper::New(
        m_memoryManager, *draw.Stack, m_target, m_counts, draw.ViewMatrix, draw.SlabMode, draw.LastSample,
        draw.SliceSpacing, QelSlabMprTiling::kBandHeight, draw.Tiling.TileWidth, draw.Tiling.SampleChunk, m_direct);
    return m_helper != nullptr;
}

bool QelImageStackSlabMprRendererWorker::Process(int index, int /*threadIndex*/)
{
    if (!m_helper)
        return false;
    const QelSlabMprDraw& draw = *m_draw;
    if (draw.Aborter && draw.Aborter->HasAborted())
        return true;
    const QelThreadScopeGuard scope(*draw.Spec);
    const QelIntRange rows = QelSlabBandRows(index, draw.CanvasY, QelSlabMprTiling::kBandHeight);
    if (rows.IsEmpty())
        return true;
    StartBand(rows);
    SampleBand(rows);
    FinishBand(rows);
    return true;
}

void QelImageStackSlabMprRendererWorker::StartBand(const QelIntRange& rows)
{
    const QelSlabMprDraw& draw = *m_draw;
    m_counts->Clear(true, 0);
    if (!m_direct) {
        m_target->Clear(true, 0);
        return;
    }
    const std::uint16_t start = StartValue(draw.SlabMode, draw.IsSigned);
    for (std::int32_t y = rows.Min; y <= rows.Max; ++y) {
        std::uint8_t* pixel = draw.Canvas->PixelAddress(draw.CanvasX.Min, y);
        for (std::int32_t x = draw.CanvasX.Min; x <= draw.CanvasX.Max; ++x, pixel += 2)
            Store16(pixel, start);
    }
}

void QelImageStackSlabMprRendererWorker::SampleBand(const QelIntRange& rows)
{
    const QelSlabMprDraw& draw = *m_draw;
    const std::int32_t tileWidth = draw.Tiling.TileWidth;
    const QelFixedPoint3 rowStep = m_helper->RowStep();
    const QelFixedPoint3 slabStep = m_helper->SlabStep();

    for (std::int32_t s0 = 0, s1 = 0; s0 <= draw.LastSample; s0 = s1 + 1) {
        s1 = QelSlabChunkEnd(s0, draw.LastSample, draw.Tiling.SampleChunk);
        m_helper->SetBlockSize(tileWidth, QelSlabMprTiling::kBandHeight, s1 - s0);
        // q runs from the chunk's first later sample: sample 1 when the chunk starts
        // with sample 0, which p takes.
        const QelFixedPoint3 offset = Times(slabStep, std::max(s0, 1));
        for (std::int64_t tile = draw.CanvasX.Min; tile <= draw.CanvasX.Max; tile += tileWidth) {
            const auto x = static_cast<std::int32_t>(tile);
            const auto xe =
                static_cast<std::int32_t>(std::min<std::int64_t>(tile + tileWidth - 1, draw.CanvasX.Max));
            QelFixedPoint3 p = m_helper->PixelPosition(x, rows.Min);
            QelFixedPoint3 q = Plus(p, offset);
            if (!m_helper->BlockTouchesVolume(s0 == 0 ? p : q))
                continue;
            for (std::int32_t y = rows.Min; y <= rows.Max; ++y) {
                std::int32_t& firstHint = draw.FirstHints->Elem(y);
                std::int32_t& laterHint = draw.LaterHints->Elem(y);
                std::int32_t firstOut = firstHint;
                std::int32_t laterOut = laterHint;
                m_helper->ProcessRow(y, rows.Min, x, xe, s0, s1, p, q, s0 == 0 ? firstHint : laterHint, firstOut,
                                     laterOut);
                laterHint = laterOut;
                if (s0 == 0)
                    firstHint = firstOut;
                p = Plus(p, rowStep);
                q = Plus(p, offset);
            }
        }
    }
}

void QelImageStackSlabMprRendererWorker::FinishBand(const QelIntRange& rows)
{
    const QelSlabMprDraw& draw = *m_draw;
    const std::uint16_t undefined = draw.UndefinedValue;
    for (std::int32_t y = rows.Min; y <= rows.Max; ++y) {
        const std::int32_t bandRow = y - rows.Min;
        std::uint8_t* pixel = draw.Canvas->PixelAddress(draw.CanvasX.Min, y);
        const std::uint8_t* count = m_counts->PixelAddress(draw.CanvasX.Min, bandRow);
        if (m_direct) {
            for (std::int32_t x = draw.CanvasX.Min; x <= draw.CanvasX.Max; ++x, pixel += 2, ++count) {
                if (*count == 0)
                    Store16(pixel, undefined);
            }
            continue;
        }
        // Sums are on the unsigned scale; a signed stack's values lie 0x8000 above their own.
        const std::uint32_t bias = draw.IsSigned ? 0x8000 : 0;
        const std::uint8_t* sum = m_target->PixelAddress(draw.CanvasX.Min, bandRow);
        for (std::int32_t x = draw.CanvasX.Min; x <= draw.CanvasX.Max; ++x, pixel += 2, count += 2, sum += 4) {
            const std::uint32_t samples = Load16(count);
            Store16(pixel, samples == 0 ? undefined : static_cast<std::uint16_t>(Load32(sum) / samples - bias));
        }
    }
}
