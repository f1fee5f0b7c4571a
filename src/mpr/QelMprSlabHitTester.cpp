#include "mpr/QelMprSlabHitTester.h"

#include "base/QelDebug.h"
#include "base/QelMatrix34.h"
#include "graphics/QelRenderSpec.h"
#include "image_stack/QelImageStack.h"
#include "mpr/imp/QelTrilinearSampler.h"

#include <cmath>
#include <limits>

namespace {

constexpr std::int32_t kOutsideValue = std::numeric_limits<std::int32_t>::max();
constexpr float kSliceTolerance = 0.001f;

}  // namespace

bool QelMprSlabHitTester::GetTargetCoordinates(const QelImageStack& stack, const QelRenderSpec& spec, float canvasX,
                                               float canvasY, QelMprSlabHit& result) const
{
    result.Hit = false;
    const std::int32_t samples = spec.SampleSliceNumber();
    const float thickness = static_cast<float>(samples - 1) * spec.CurrSliceSpacing();

    const QelMatrix34 canvasToVolume = spec.Transform().Inverse();
    QelVector3 nearPoint;
    QelVector3 farPoint;
    QelVector3 centre;
    canvasToVolume.TransformPoint({canvasX, canvasY, -10.0f}, nearPoint);
    canvasToVolume.TransformPoint({canvasX, canvasY, 10.0f}, farPoint);
    canvasToVolume.TransformPoint({canvasX, canvasY, 0.0f}, centre);
    QelVector3 direction = farPoint - nearPoint;
    const float length = std::sqrt(direction.Dot(direction));
    direction = length > 0.0f ? direction * (1.0f / length) : QelVector3{0.0f, 0.0f, 0.0f};
    const QelVector3 halfSlab = direction * (thickness * 0.5f);
    const QelVector3 start = centre - halfSlab;
    const QelVector3 end = centre + halfSlab;

    const QelSlabMode::QelSlabModeEnum mode = spec.SlabMode();
    if (mode != QelSlabMode::MIP && mode != QelSlabMode::MINIP)
        return false;

    std::int32_t value = 0;
    const float frac = GetFrac(stack, start, end, samples, value, mode == QelSlabMode::MINIP);
    if (!(frac >= 0.0f))
        return false;
    result.Hit = true;
    result.Position = start + (end - start) * frac;
    result.Value = value;
    return true;
}

float QelMprSlabHitTester::GetFrac(const QelImageStack& stack, const QelVector3& start, const QelVector3& end,
                                   std::int32_t numSamples, std::int32_t& value, bool lowestWanted)
{
    if (numSamples < 1) {
        QEL_ERROR("num_samples is '%d' but needs to be >= 1 in QelMprSlabHitTester::GetFrac().", numSamples);
        return 0.0f;
    }
    const std::unique_ptr<QelTrilinearSampler> sampler =
        QelTrilinearSampler::New(stack, kOutsideValue, kSliceTolerance);
    if (!sampler)
        return -1.0f;
    const bool hasPadding = stack.HasPadding();
    const std::int32_t padding = stack.PaddingValue();
    auto counts = [&](std::int32_t sample) {
        return sample != kOutsideValue && sample != sampler->OutsideValue() && !(hasPadding && sample == padding);
    };

    if (numSamples == 1) {
        const std::int32_t sample = sampler->Sample(start);
        if (!counts(sample))
            return -1.0f;
        value = sample;
        return 0.0f;
    }

    float bestFrac = -1.0f;
    std::int32_t best = lowestWanted ? std::numeric_limits<std::int32_t>::max()
                                     : std::numeric_limits<std::int32_t>::min();
    const QelVector3 span = end - start;
    for (std::int32_t i = 0; i < numSamples; ++i) {
        const float t = static_cast<float>(i) / static_cast<float>(numSamples - 1);
        const std::int32_t sample = sampler->Sample(start + span * t);
        if (!counts(sample))
            continue;
        // Strictly better only: the first of equal values wins.
        if (lowestWanted ? sample < best : sample > best) {
            best = sample;
            bestFrac = t;
        }
    }
    value = best;
    return bestFrac;
}
