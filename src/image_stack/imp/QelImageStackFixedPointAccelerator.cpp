#include "image_stack/QelImageStackFixedPointAccelerator.h"

#include "base/QelDebug.h"
#include "image/QelRasterImage.h"
#include "image_stack/QelImageStack.h"

#include <algorithm>
#include <cmath>
#include <new>

namespace {

constexpr double kFixedGap = 65536.0;           // the largest gap on the fixed scale
constexpr double kFixedLimit = 1073741824.0;    // 2^30: room for 16384 slices of kFixedGap
constexpr double kTwoTo32 = 4294967296.0;
constexpr double kZToByteRange = 16383.0;

// Always floor of the value + 0.5, negative values too, so that every loop that
// rounds a position the same way lands on the same record.
double RoundFixed(double value) noexcept
{
    return std::floor(value + 0.5);
}

// A fixed z that has passed the range checks, or was reported: NaN and values out of
// range stay defined on the way to an integer.
std::int32_t ToInt32(double fixed) noexcept
{
    if (!(fixed >= 0.0))
        return 0;
    return static_cast<std::int32_t>(std::min(fixed, kFixedLimit));
}

}  // namespace

QelImageStackFixedPointAccelerator::~QelImageStackFixedPointAccelerator() = default;

template <class FillZ>
std::unique_ptr<QelImageStackFixedPointAccelerator> QelImageStackFixedPointAccelerator::Make(std::int64_t count,
                                                                                             FillZ fillZ)
{
    QEL_ASSERT(count >= 1, "The image stack must have at least one image !\n");
    if (count < 1 || count > QelIntRange::kHighest)
        return nullptr;
    std::unique_ptr<QelImageStackFixedPointAccelerator> accelerator(new (std::nothrow)
                                                                        QelImageStackFixedPointAccelerator);
    if (!accelerator || !accelerator->Allocate(static_cast<std::int32_t>(count)))
        return nullptr;
    fillZ(*accelerator);
    if (!accelerator->Compute())
        return nullptr;
    return accelerator;
}

std::unique_ptr<QelImageStackFixedPointAccelerator> QelImageStackFixedPointAccelerator::New(
    const QelImageStack& stack)
{
    return Make(stack.ImageCount(), [&stack](QelImageStackFixedPointAccelerator& accelerator) {
        const QelImageRecord* slices = stack.Records();
        for (std::int32_t i = 0; i < accelerator.m_count; ++i) {
            accelerator.m_records[i].Z = slices[i].Z;
            accelerator.UpdateRecord(i, slices[i].Image);
        }
    });
}

std::unique_ptr<QelImageStackFixedPointAccelerator> QelImageStackFixedPointAccelerator::New(
    const QelArray<float>& zValues)
{
    return Make(zValues.Length(), [&zValues](QelImageStackFixedPointAccelerator& accelerator) {
        const float* z = zValues.Data();
        for (std::int32_t i = 0; i < accelerator.m_count; ++i)
            accelerator.m_records[i].Z = z[i];
    });
}

std::unique_ptr<QelImageStackFixedPointAccelerator> QelImageStackFixedPointAccelerator::New(float firstZ, float lastZ,
                                                                                            std::int32_t count)
{
    return Make(count, [firstZ, lastZ](QelImageStackFixedPointAccelerator& accelerator) {
        const double gap = (double{lastZ} - firstZ) / accelerator.m_count;
        for (std::int32_t i = 0; i < accelerator.m_count; ++i)
            accelerator.m_records[i].Z = static_cast<float>(firstZ + i * gap);
    });
}

bool QelImageStackFixedPointAccelerator::Allocate(std::int32_t count) noexcept
{
    // Value-initialised: a record starts with no image and no gap values.
    m_records.reset(new (std::nothrow) QelFixedPointSliceRecord[static_cast<std::size_t>(count)]());
    if (!m_records)
        return false;
    m_count = count;
    m_lastIndex = count - 1;
    return true;
}

bool QelImageStackFixedPointAccelerator::Compute()
{
    QelFixedPointSliceRecord* records = m_records.get();
    double largestGap = -1.0;
    for (std::int32_t i = 0; i < m_lastIndex; ++i)
        largestGap = std::max(largestGap, static_cast<double>(records[i + 1].Z - records[i].Z));

    m_scale = m_count == 1 ? kFixedGap : kFixedGap / largestGap;
    m_offset = -(records[0].Z * m_scale);
    m_inverseScale = 1.0 / m_scale;

    const double firstFixed = RoundFixed(records[0].Z * m_scale + m_offset);
    QEL_ASSERT(firstFixed == 0.0, "Math error (min_z = %f)\n", firstFixed);
    const double lastFixed = RoundFixed(records[m_lastIndex].Z * m_scale + m_offset);
    QEL_ASSERT(lastFixed <= kFixedLimit, "Math error (max_z = %f)\n", lastFixed);
    bool sane = firstFixed == 0.0 && lastFixed <= kFixedLimit;
    m_lastFixedZ = ToInt32(lastFixed);

    for (std::int32_t i = 0; i < m_count; ++i) {
        const double fixed = RoundFixed(records[i].Z * m_scale + m_offset);
        QEL_ASSERT(!(fixed < 0.0), "Math error (fix_z too low)\n");
        QEL_ASSERT(!(fixed > kFixedLimit), "Math error (fix_z too high)\n");
        sane = sane && fixed >= 0.0 && fixed <= kFixedLimit;
        records[i].FixedZ = ToInt32(fixed);
    }

    for (std::int32_t i = 0; i < m_lastIndex; ++i) {
        QelFixedPointSliceRecord& record = records[i];
        const QelFixedPointSliceRecord& next = records[i + 1];
        const float zGap = next.Z - record.Z;
        record.ZToByteScale = zGap == 0.0f ? 0.0f : static_cast<float>(kZToByteRange / zGap);
        // Neighbours one fixed unit apart or closer would give 2^32, which doesn't fit.
        const std::int32_t fixedGap = next.FixedZ - record.FixedZ;
        const double reciprocal = fixedGap == 0 ? 4294967295.0 : std::clamp(kTwoTo32 / fixedGap, 1.0001, 4294967295.0);
        record.GapReciprocal = static_cast<std::uint32_t>(reciprocal);
    }
    records[m_lastIndex].ZToByteScale = 0.0f;
    records[m_lastIndex].GapReciprocal = 0;
    return sane;
}

void QelImageStackFixedPointAccelerator::UpdateRecord(std::int32_t index, const QelRasterImage* image)
{
    const bool inRange = static_cast<std::uint32_t>(index) < static_cast<std::uint32_t>(m_count);
    QEL_ASSERT(inRange, "UpdateRecord (incorrect index)\n");
    if (!inRange)
        return;
    QelFixedPointSliceRecord& record = m_records[index];
    if (!image) {
        record.Origin = nullptr;
        record.BytesPerLine = 0;
        return;
    }
    record.Origin = image->OriginAddress();
    record.BytesPerLine = image->BytesPerLine();
    if (m_bytesPerPixel == 0)
        m_bytesPerPixel = image->BytesPerPixel();
}

void QelImageStackFixedPointAccelerator::UpdateRecord(std::int32_t index, const QelRasterImage* image, float z)
{
    const bool inRange = static_cast<std::uint32_t>(index) < static_cast<std::uint32_t>(m_count);
    UpdateRecord(index, image);
    if (!inRange)
        return;
    m_records[index].Z = z;
    (void)Compute();  // a bad z has been reported; the records stay defined
}

void QelImageStackFixedPointAccelerator::FindPair(std::int32_t fixedZ, std::int32_t& index,
                                                  std::int32_t& upperFixedZ, std::int32_t& lowerFixedZ) const noexcept
{
    if (m_count == 0) {
        index = -1;
        return;
    }
    const QelFixedPointSliceRecord* records = m_records.get();
    // A negative hint is as unusable as one past the end.
    std::int32_t i = static_cast<std::uint32_t>(index) < static_cast<std::uint32_t>(m_count) ? index : 0;

    if (fixedZ == records[i].FixedZ) {
        index = i;
        upperFixedZ = lowerFixedZ = fixedZ;
        return;
    }
    if (fixedZ < records[i].FixedZ) {
        while (records[i].FixedZ > fixedZ) {
            if (--i < 0) {
                index = -1;
                return;
            }
        }
        index = i;
        lowerFixedZ = records[i].FixedZ;
        upperFixedZ = records[i + 1].FixedZ;
        return;
    }
    for (;; ++i) {
        if (i == m_lastIndex) {
            index = -1;
            return;
        }
        if (fixedZ == records[i].FixedZ) {
            index = i;
            upperFixedZ = lowerFixedZ = fixedZ;
            return;
        }
        if (fixedZ < records[i + 1].FixedZ) {
            index = i;
            lowerFixedZ = records[i].FixedZ;
            upperFixedZ = records[i + 1].FixedZ;
            return;
        }
    }
}

std::int32_t QelImageStackFixedPointAccelerator::Locate(std::int32_t fixedZ, std::int32_t i) const noexcept
{
    const QelFixedPointSliceRecord* records = m_records.get();
    while (i > 0 && records[i].FixedZ > fixedZ)
        --i;
    if (records[i].FixedZ > fixedZ)
        return -1;
    // Upwards past every slice at or below fixedZ: slices closer than one fixed unit
    // share a fixed z, and the gap between them holds nothing.
    while (i < m_lastIndex && records[i + 1].FixedZ <= fixedZ)
        ++i;
    return i;
}

void QelImageStackFixedPointAccelerator::FindSlices(std::int32_t fixedZ, std::int32_t& hint, std::int32_t& index,
                                                    const std::uint8_t*& upperImage, std::int32_t& upperFixedZ,
                                                    const std::uint8_t*& lowerImage,
                                                    std::int32_t& lowerFixedZ) const noexcept
{
    index = -1;
    upperImage = lowerImage = nullptr;
    upperFixedZ = lowerFixedZ = -1;
    if (m_count == 0)
        return;
    const QelFixedPointSliceRecord* records = m_records.get();
    if (m_count == 1) {
        if (fixedZ < records[0].FixedZ) {
            upperImage = records[0].Origin;
            upperFixedZ = records[0].FixedZ;
        } else {
            lowerImage = records[0].Origin;
            lowerFixedZ = records[0].FixedZ;
        }
        hint = 0;
        return;
    }

    const std::int32_t at = Locate(fixedZ, std::clamp(hint, 0, m_count - 2));
    if (at < 0) {
        upperImage = records[0].Origin;
        upperFixedZ = records[0].FixedZ;
        hint = 0;
        return;
    }
    if (at == m_lastIndex) {
        const QelFixedPointSliceRecord& last = records[m_lastIndex];
        lowerImage = last.Origin;
        lowerFixedZ = last.FixedZ;
        if (fixedZ == last.FixedZ) {
            upperImage = last.Origin;
            upperFixedZ = last.FixedZ;
        }
        hint = m_count - 2;
        return;
    }
    index = at;
    lowerImage = records[at].Origin;
    lowerFixedZ = records[at].FixedZ;
    upperImage = records[at + 1].Origin;
    upperFixedZ = records[at + 1].FixedZ;
    hint = at;
}

void QelImageStackFixedPointAccelerator::FindIndices(std::int32_t fixedZ, std::int32_t& hint,
                                                     std::int32_t& upperIndex, std::int32_t& lowerIndex) const noexcept
{
    upperIndex = lowerIndex = -1;
    if (m_count == 0)
        return;
    if (m_count == 1) {
        (fixedZ < m_records[0].FixedZ ? upperIndex : lowerIndex) = 0;
        hint = 0;
        return;
    }

    const std::int32_t at = Locate(fixedZ, std::clamp(hint, 0, m_count - 2));
    if (at < 0) {
        upperIndex = 0;
        hint = 0;
        return;
    }
    lowerIndex = at;
    if (at == m_lastIndex) {
        if (fixedZ == m_records[m_lastIndex].FixedZ)
            upperIndex = at;
        hint = m_count - 2;
        return;
    }
    upperIndex = at + 1;
    hint = at;
}
