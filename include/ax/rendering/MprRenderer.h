#pragma once

#include "ax/rendering/IMprRenderer.h"
#include "ax/rendering/InterpolationMode.h"
#include "ax/rendering/Owned.h"

#include <cstdint>

class QelImageStackSteppableRenderer;
class QelRenderSpec;

namespace Ax::Rendering {

/// Multi-planar reformats of 16-bit grey stacks onto 16-bit grey canvases, on all
/// of the machine's render threads. Each object owns one native renderer and one
/// render record for its life, and refills the record at every Render. One thread
/// at a time may use an object. Requires Initializer::Initialize.
class MprRenderer final : public IMprRenderer {
public:
    /// Throws ArgumentException "Unsupported interpolation mode: <name>" for a mode
    /// without a renderer: BiLinear, BiCubic, and for now TriCubic.
    explicit MprRenderer(InterpolationMode interpolationMode);
    ~MprRenderer() override;
    MprRenderer(const MprRenderer&) = delete;
    MprRenderer& operator=(const MprRenderer&) = delete;

    /// Throws ArgumentOutOfRangeException for a projection mode outside the
    /// enumeration, and RenderingException "Internal rendering failed : Slab
    /// slicing/spacing invalid" for a slice count below 1 or a spacing below 0 (or
    /// not a number). Returns StatusCode::Aborted when `aborter` stopped the render;
    /// the canvas then holds the bands drawn so far.
    StatusCode Render(ImageStack& imageStack, std::uint16_t unusedValue,
                      const Ax::Primitives::Matrix44& volumeToViewTransform, ProjectionMode projectionMode,
                      std::int32_t sliceCount, float sliceSpacingVoxels, RasterImage& renderCanvas,
                      IAborter* aborter) override;

private:
    Owned<QelImageStackSteppableRenderer> m_renderer;
    Owned<QelRenderSpec> m_renderSpec;
};

}  // namespace Ax::Rendering
