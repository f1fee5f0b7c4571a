#pragma once

#include <cstdint>
#include <memory>

#include "base/QelNoncopyable.h"

class QelImageStack;
class QelMatrix34;
class QelMemoryManager;
class QelRasterImage;

/// A position in the stack: x and y in 16.16 voxels, z on the fixed-point
/// accelerator's scale (the largest gap between two slices is 65536).
struct QelFixedPoint3 { std::int32_t X = 0, Y = 0, Z = 0; };  // x, y 16.16 voxels; z on the accelerator's fixed scale

/// The inner loop of the slab reformat: takes the samples of a tile of pixels
/// into a target image and a flag image, with exact integer arithmetic.
///
/// AVIP: target is a 32-bit sum image and flag a 16-bit count image, both
/// band-sized (row y - y0). MIP and MINIP: target is the canvas when `direct`
/// (addressed by canvas row y) or a 16-bit band image (row y - y0); flag is a
/// byte image (row y - y0).
class QelImageStackSlabMprRendererHelper : QelNoncopyable {
public:
    // null when memory runs out, and for AVIP with `direct`
    static std::unique_ptr<QelImageStackSlabMprRendererHelper> New(QelMemoryManager* memoryManager, const QelImageStack& stack,
        QelRasterImage* targetImage, QelRasterImage* flagImage, const QelMatrix34& viewMatrix, std::int32_t slabMode,
        std::int32_t lastSampleIndex, float sliceSpacing, std::int32_t bandHeight, std::int32_t tileWidth, std::int32_t sampleChunk, bool direct);
    virtual ~QelImageStackSlabMprRendererHelper() = default;
    virtual QelFixedPoint3 PixelPosition(std::int32_t x, std::int32_t y) const = 0;
    virtual QelFixedPoint3 RowStep() const = 0;
    virtual QelFixedPoint3 SlabStep() const = 0;
    virtual void SetBlockSize(std::int32_t tileWidth, std::int32_t bandHeight, std::int32_t lastSampleOffset) = 0;
    virtual bool BlockTouchesVolume(const QelFixedPoint3& p) const = 0;
    virtual void ProcessRow(std::int32_t y, std::int32_t y0, std::int32_t xFirst, std::int32_t xLast, std::int32_t sFirst, std::int32_t sLast,
                            QelFixedPoint3 p, QelFixedPoint3 q, std::int32_t hint, std::int32_t& firstHint, std::int32_t& laterHint) = 0;
};
