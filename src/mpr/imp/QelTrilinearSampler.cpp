#include "mpr/imp/QelTrilinearSampler.h"

#include "image/QelRasterImage.h"
#include "image_stack/QelImageStack.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

std::unique_ptr<QelTrilinearSampler> QelTrilinearSampler::New(const QelImageStack& stack, std::int32_t outsideValue,
                                                              float tolerance)
{
    const std::int32_t count = stack.ImageCount();
    if (count < 2 || stack.BytesPerPixel() != 2)
        return nullptr;
    std::unique_ptr<QelTrilinearSampler> sampler(new (std::nothrow) QelTrilinearSampler);
    if (!sampler)
        return nullptr;
    try {
        QelTrilinearSampler& s = *sampler;
        s.m_width = stack.Width();
        s.m_height = stack.Height();
        s.m_signed = stack.IsSigned();
        s.m_hasPadding = stack.HasPadding();
        s.m_paddingValue = stack.PaddingValue();
        s.m_outsideValue = s.m_hasPadding ? s.m_paddingValue : outsideValue;

        const QelImageRecord* records = stack.Records();
        s.m_origins.reserve(static_cast<std::size_t>(count));
        s.m_bytesPerLine.reserve(static_cast<std::size_t>(count));
        for (std::int32_t i = 0; i < count; ++i) {
            if (!records[i].Image)
                return nullptr;
            s.m_origins.push_back(records[i].Image->OriginAddress());
            s.m_bytesPerLine.push_back(records[i].Image->BytesPerLine());
        }
        s.m_firstZ = records[0].Z;
        s.m_lastZ = records[count - 1].Z;

        // Each change of spacing beyond the tolerance starts a new run, which shares
        // its first slice with the run before.
        Region region{records[0].Z, records[1].Z, 0.0f, 0, 2};
        float gap = records[1].Z - records[0].Z;
        auto finish = [&s](Region& r) {
            r.Scale = static_cast<float>(r.Count - 1) / (r.LastZ - r.FirstZ);
            s.m_regions.push_back(r);
        };
        for (std::int32_t k = 2; k < count; ++k) {
            const float z = records[k].Z;
            if (std::fabs(z - region.LastZ - gap) < tolerance) {
                region.LastZ = z;
                ++region.Count;
                continue;
            }
            finish(region);
            region = Region{region.LastZ, z, 0.0f, region.StartIndex + region.Count - 1, 2};
            gap = z - region.FirstZ;
        }
        finish(region);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return sampler;
}

std::int32_t QelTrilinearSampler::Voxel(std::int32_t slice, std::int32_t x, std::int32_t y) const noexcept
{
    std::uint16_t raw;
    std::memcpy(&raw, m_origins[static_cast<std::size_t>(slice)] +
                          std::ptrdiff_t{y} * m_bytesPerLine[static_cast<std::size_t>(slice)] + std::ptrdiff_t{x} * 2,
                sizeof raw);
    return m_signed ? std::int32_t{static_cast<std::int16_t>(raw)} : std::int32_t{raw};
}

bool QelTrilinearSampler::IsPadding(std::int32_t voxel) const noexcept
{
    return m_hasPadding && static_cast<std::uint16_t>(voxel) == static_cast<std::uint16_t>(m_paddingValue);
}

std::int32_t QelTrilinearSampler::Sample(const QelVector3& position) const noexcept
{
    const float x = position.X();
    const float y = position.Y();
    const float z = position.Z();
    // Written so that a NaN coordinate fails the test too.
    const bool inside = x >= 0.0f && x < static_cast<float>(m_width - 1) && y >= 0.0f &&
                        y < static_cast<float>(m_height - 1) && z >= m_firstZ && z < m_lastZ;
    if (!inside)
        return m_outsideValue;

    const auto region = std::upper_bound(m_regions.begin(), m_regions.end(), z,
                                         [](float value, const Region& r) { return value < r.LastZ; });
    const float u = (z - region->FirstZ) * region->Scale + static_cast<float>(region->StartIndex);
    std::int32_t iz = static_cast<std::int32_t>(u);
    float tz = u - static_cast<float>(iz);
    // Rounding can carry a z just below the run's last slice onto it.
    const std::int32_t lastGap = region->StartIndex + region->Count - 2;
    if (iz > lastGap) {
        iz = lastGap;
        tz = 1.0f;
    }
    const std::int32_t ix = static_cast<std::int32_t>(x);
    const std::int32_t iy = static_cast<std::int32_t>(y);
    const float tx = x - static_cast<float>(ix);
    const float ty = y - static_cast<float>(iy);

    std::int32_t v[8];
    for (int corner = 0; corner < 8; ++corner) {
        v[corner] = Voxel(iz + (corner >> 2), ix + (corner & 1), iy + ((corner >> 1) & 1));
        if (IsPadding(v[corner]))
            return m_outsideValue;
    }
    auto lerp = [](float a, float b, float t) { return a * (1.0f - t) + b * t; };
    float planes[2];
    for (int slice = 0; slice < 2; ++slice) {
        const std::int32_t* c = v + 4 * slice;
        const float top = lerp(static_cast<float>(c[0]), static_cast<float>(c[1]), tx);
        const float bottom = lerp(static_cast<float>(c[2]), static_cast<float>(c[3]), tx);
        planes[slice] = lerp(top, bottom, ty);
    }
    return static_cast<std::int32_t>(std::lround(lerp(planes[0], planes[1], tz)));
}
