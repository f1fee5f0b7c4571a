#pragma once

#include "mpr/QelMprSlabHitTester.h"
#include "threaded/QelImageStackRenderer.h"
#include "threaded/QelMTIntLoopWkr.h"

#include <cstdint>
#include <memory>

class QelMemoryManager;

/// Where a slab reformat stands between the calls of its driver.
enum class QelSlabMprState : std::int32_t {
    Idle = 0,         // before the first draw, and after Abort
    Running = 2,      // StartDraw has set up; Step runs the bands
    BandsDone = 3,    // every band is drawn; one more Step frees the band images
    Finished = 4,     // the canvas holds the picture (or the canvas is empty)
    NoPicture = 5,    // no data to draw, or stopped by the record's aborter
    OutOfMemory = 6,  // the band images could not be had
};

/// The trilinear slab reformat: a plane, or a slab of planes along its normal
/// reduced to the highest, lowest or mean sample, cut at any angle through a stack
/// onto a canvas of 16-bit pixels, in fixed point.
///
/// The record's SlabCenterTransform maps the volume to the canvas, the slab's
/// centre plane being canvas z 0; SampleSliceNumber samples lie CurrSliceSpacing
/// voxels apart along the normal. Pixels without a sample in the volume get
/// UndefinedPixelVal. The canvas is drawn in bands of 16 rows, up to 16 bands
/// per Step, by the threads of the renderer's loop manager; the driver's thread
/// makes every call. The renderer keeps pointers to the stack, the record and the
/// canvas only until the draw ends, and owns its band images and workers.
///
/// Only canvases of 2 bytes per pixel are drawn: a canvas of another size is a bug
/// report (an empty canvas finishes at once whatever its size).
class QelImageStackSlabMprRenderer : public QelImageStackSteppableRenderer,
                                     public QelMTIntLoopWkrFactory,
                                     public QelMprSlabHitTester {
public:
    /// A renderer on `threadCount` threads; 0 means QelSystemInfo's
    /// RenderThreadCount(). `memoryManager` (null: the default one) gives the band
    /// images and must outlive the renderer. Null when the threads or memory can't
    /// be had.
    [[nodiscard]] static std::unique_ptr<QelImageStackSlabMprRenderer> New(QelMemoryManager* memoryManager,
                                                                           int threadCount);

    [[nodiscard]] virtual QelSlabMprState State() const noexcept = 0;
};
