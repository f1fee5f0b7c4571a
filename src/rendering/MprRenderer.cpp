#include "ax/rendering/MprRenderer.h"

#include "AbortableRenderer.h"
#include "MatrixHelpers.h"
#include "MemoryManager.h"
#include "PrimitiveConversions.h"
#include "ax/rendering/ImageStack.h"
#include "ax/rendering/RasterImage.h"
#include "ax/rendering/RenderingException.h"
#include "ax/system/Exception.h"
#include "graphics/QelRenderSpec.h"
#include "image/QelPixelVariant.h"
#include "mpr/QelImageStackSlabMprRenderer.h"

#include <new>

namespace Ax::Rendering {

namespace {

// Every public render runs on the machine's render threads.
constexpr int kDefaultThreadCount = 0;

[[nodiscard]] Owned<QelImageStackSteppableRenderer> CreateRendererForInterpolationMode(InterpolationMode mode)
{
    if (mode != InterpolationMode::TriLinear)
        throw Ax::System::ArgumentException("Unsupported interpolation mode: " + ToString(mode));
    Owned<QelImageStackSteppableRenderer> renderer =
        QelImageStackSlabMprRenderer::New(MemoryManager::Instance(), kDefaultThreadCount);
    if (!renderer)
        throw std::bad_alloc();
    return renderer;
}

}  // namespace

MprRenderer::MprRenderer(InterpolationMode interpolationMode)
    : m_renderSpec(std::make_unique<QelRenderSpec>())
{
    m_renderer = CreateRendererForInterpolationMode(interpolationMode);
}

MprRenderer::~MprRenderer() = default;

StatusCode MprRenderer::Render(ImageStack& imageStack, std::uint16_t unusedValue,
                               const Ax::Primitives::Matrix44& volumeToViewTransform, ProjectionMode projectionMode,
                               std::int32_t sliceCount, float sliceSpacingVoxels, RasterImage& renderCanvas,
                               IAborter* aborter)
{
    QelRenderSpec& spec = *m_renderSpec;
    const QelMatrix34 volumeToView = MatrixHelpers::ConvertMatrix44(volumeToViewTransform);
    spec.SetSlabCenterTransform(volumeToView);
    spec.SetTransform(volumeToView);
    spec.SetCanvas(renderCanvas.UnmanagedImage());
    spec.SetUndefinedPixelVal(QelPixelVariant::SixteenBitGrey(unusedValue));
    spec.SetSlabMode(PrimitiveConversions::ToQelSlabEnum(projectionMode));
    // Written to refuse a spacing that is not a number as well.
    if (sliceCount < 1 || !(sliceSpacingVoxels >= 0.0f))
        throw RenderingException("Internal rendering failed : Slab slicing/spacing invalid");
    spec.SetSampleSliceNumber(sliceCount);
    spec.SetCurrSliceSpacing(sliceSpacingVoxels);
    return AbortableRenderer::Render(m_renderer.get(), imageStack.UnmanagedImageStack(), &spec, aborter);
}

}  // namespace Ax::Rendering
