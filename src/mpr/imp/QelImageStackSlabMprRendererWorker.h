#pragma once

#include "base/QelArray.h"
#include "base/QelIntRange.h"
#include "base/QelMatrix34.h"
#include "graphics/QelRenderEnums.h"
#include "threaded/QelMTIntLoopWkr.h"

#include <cstdint>
#include <memory>

class QelAborter;
class QelImageStack;
class QelImageStackSlabMprRendererHelper;
class QelMemoryManager;
class QelRasterImage;
class QelRenderSpec;

/// How a draw cuts its work: bands of rows go to threads, each band is cut into
/// tiles of columns, and the slab's samples into chunks, so that a tile runs
/// through one chunk with the chunk's slices in cache before the next chunk starts.
struct QelSlabMprTiling {
    static constexpr std::int32_t kBandHeight = 16;
    static constexpr std::int32_t kBandsPerStep = 16;

    std::int32_t TileWidth = 32;
    std::int32_t SampleChunk = 16;

    /// Wider tiles when a canvas row runs along the image rows, narrower tiles and
    /// longer chunks when it runs across them: that is how the stack lies in memory.
    /// Only the order of memory access depends on it, and the last bits of the
    /// positions through the tile starts.
    [[nodiscard]] static QelSlabMprTiling ForView(const QelMatrix34& volumeToCanvas) noexcept;
};

/// The last sample of the chunk that starts at `first`, for samples 0 to `last`.
/// When a full chunk would leave less than half a chunk behind, the two last chunks
/// share what is left evenly, so that no tiny chunk trails.
[[nodiscard]] std::int32_t QelSlabChunkEnd(std::int32_t first, std::int32_t last, std::int32_t chunk) noexcept;

/// The bands that cover `rows`: band b holds rows b x height to b x height +
/// height - 1, cut to `rows`. Empty for empty rows.
[[nodiscard]] QelIntRange QelSlabBands(const QelIntRange& rows, std::int32_t bandHeight) noexcept;

/// The rows of band `band`, cut to `rows`; empty when they don't meet.
[[nodiscard]] QelIntRange QelSlabBandRows(std::int32_t band, const QelIntRange& rows, std::int32_t bandHeight) noexcept;

/// What all workers of one draw read; the renderer owns it and everything it
/// points to outlives the draw.
struct QelSlabMprDraw {
    const QelImageStack* Stack = nullptr;
    const QelRenderSpec* Spec = nullptr;
    QelRasterImage* Canvas = nullptr;
    QelIntRange CanvasX;
    QelIntRange CanvasY;
    QelMatrix34 ViewMatrix;  // volume to canvas
    QelSlabMode::QelSlabModeEnum SlabMode = QelSlabMode::MIP;  // MIP, MINIP or AVIP, never another value
    bool IsSigned = false;
    std::int32_t LastSample = 0;  // samples per pixel - 1
    float SliceSpacing = 1.0f;
    QelSlabMprTiling Tiling;
    std::uint16_t UndefinedValue = 0;
    QelAborter* Aborter = nullptr;
    // The last slice index seen per canvas row, by the first sample and by the later
    // ones; each row belongs to one band and so to one thread at a time.
    QelArray<std::int32_t>* FirstHints = nullptr;
    QelArray<std::int32_t>* LaterHints = nullptr;
};

/// One thread's part of a slab draw: whole bands, each set up, sampled tile by tile
/// and chunk by chunk through an accumulator helper, and finished into the canvas.
/// The worker's band images belong to the renderer; the helper to the worker.
class QelImageStackSlabMprRendererWorker final : public QelMTIntLoopWkr {
public:
    explicit QelImageStackSlabMprRendererWorker(QelMemoryManager* memoryManager) noexcept;
    ~QelImageStackSlabMprRendererWorker() override;

    /// Readies the worker for `draw`. AVIP accumulates in `sums` (4 bytes per pixel)
    /// and `counts` (2 bytes); the other modes straight in the canvas, with a flag
    /// byte per pixel in `counts` and no `sums`. Both are canvas wide and one band
    /// high. False when the helper can't be made.
    [[nodiscard]] bool Prepare(const QelSlabMprDraw& draw, QelRasterImage* sums, QelRasterImage* counts);

    bool Setup() override { return true; }
    /// Draws band `index`; nothing when the record's aborter has fired.
    bool Process(int index, int threadIndex) override;
    bool Finish() override { return true; }

private:
    void StartBand(const QelIntRange& rows);
    void SampleBand(const QelIntRange& rows);
    void FinishBand(const QelIntRange& rows);

    QelMemoryManager* m_memoryManager;
    const QelSlabMprDraw* m_draw = nullptr;
    QelRasterImage* m_target = nullptr;  // the sums for AVIP, else the canvas
    QelRasterImage* m_counts = nullptr;
    bool m_direct = false;               // the target is the canvas
    std::unique_ptr<QelImageStackSlabMprRendererHelper> m_helper;
};
