#pragma once

// A plain slab reformat for comparing the renderer with, bit for bit: one sample at
// a time, straight from the fixed-point arithmetic, with no hints, no block tests,
// no chunks and no vector code. It shares with the renderer only what decides the
// bits: the float set-up, one start position per tile and band, and integer steps
// from there.

#include "base/QelIntRange.h"
#include "base/QelMatrix34.h"
#include "image_stack/QelImageStack.h"
#include "image_stack/QelImageStackFixedPointAccelerator.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

class SlabMprReference {
public:
    static constexpr std::int32_t kBandHeight = 16;

    /// `mode` 0 highest, 1 lowest, anything else the mean; `view` maps volume to canvas.
    SlabMprReference(const QelImageStack& stack, const QelMatrix34& view, std::int32_t mode, std::int32_t samples,
                     float spacing, std::uint16_t undefinedValue)
        : m_stack(stack), m_accelerator(*stack.FixedPointAccelerator()), m_mode(mode), m_samples(samples),
          m_undefined(undefinedValue), m_tileWidth(TileWidth(view))
    {
        m_scale = static_cast<float>(m_accelerator.Scale());
        m_offset = static_cast<float>(m_accelerator.Offset());
        const QelMatrix34 inverse = view.Inverse();
        QelVector3 origin, z;
        inverse.TransformPoint({0.0f, 0.0f, 0.0f}, origin);
        inverse.TransformVector({1.0f, 0.0f, 0.0f}, m_x);
        inverse.TransformVector({0.0f, 1.0f, 0.0f}, m_y);
        inverse.TransformVector({0.0f, 0.0f, 1.0f}, z);
        const float length = std::sqrt(z.X() * z.X() + z.Y() * z.Y() + z.Z() * z.Z());
        const QelVector3 slab{z.X() / length * spacing, z.Y() / length * spacing, z.Z() / length * spacing};
        for (int axis = 0; axis < 3; ++axis)
            m_start[axis] = origin[axis] - slab[axis] * static_cast<float>(samples - 1) * 0.5f;
        m_xStep = Fix(m_x);
        m_rowStep = Fix(m_y);
        m_slabStep = Fix(slab);
    }

    /// 64 when canvas x runs along the image rows, 16 across them, 32 otherwise.
    static std::int32_t TileWidth(const QelMatrix34& view)
    {
        const float x = view.Elem(0, 0), y = view.Elem(0, 1), z = view.Elem(0, 2);
        if (x != 0.0f && y == 0.0f && z == 0.0f)
            return 64;
        if (y != 0.0f && x == 0.0f && z == 0.0f)
            return 16;
        return 32;
    }

    /// The canvas over `columns` x `rows`, row after row.
    [[nodiscard]] std::vector<std::uint16_t> Render(const QelIntRange& columns, const QelIntRange& rows) const
    {
        const auto width = static_cast<std::size_t>(columns.Length());
        std::vector<std::uint16_t> canvas(width * static_cast<std::size_t>(rows.Length()));
        if (canvas.empty())
            return canvas;
        for (std::int32_t band = FloorDiv(rows.Min, kBandHeight); band <= FloorDiv(rows.Max, kBandHeight); ++band) {
            const std::int32_t y0 = std::max(rows.Min, band * kBandHeight);
            const std::int32_t y1 = std::min(band * kBandHeight + kBandHeight - 1, rows.Max);
            for (std::int32_t tile = columns.Min; tile <= columns.Max; tile += m_tileWidth) {
                const Fixed corner = PixelPosition(tile, y0);
                const std::int32_t tileEnd = std::min(tile + m_tileWidth - 1, columns.Max);
                for (std::int32_t y = y0; y <= y1; ++y)
                    for (std::int32_t x = tile; x <= tileEnd; ++x)
                        canvas[std::size_t(y - rows.Min) * width + std::size_t(x - columns.Min)] =
                            Pixel(corner + m_rowStep * (y - y0) + m_xStep * (x - tile));
            }
        }
        return canvas;
    }

    /// The sample at fixed (x, y, z): its value on the unsigned scale, or false when it
    /// is skipped.
    bool Sample(std::int32_t x, std::int32_t y, std::int32_t z, std::uint32_t& value) const
    {
        const Fixed p{x, y, z};
        if (p.Z < 0 || p.Z > m_accelerator.LastFixedZ())
            return false;
        // The last slice at or below z: a sample on a slice takes it alone, one
        // between slices the gap above it. A zero-width gap is never the one found.
        std::int32_t lower = 0;
        while (lower + 1 < m_accelerator.Count() && m_accelerator.Record(lower + 1).FixedZ <= p.Z)
            ++lower;
        std::int32_t upper = lower;
        std::uint32_t fz = 0;
        const std::int32_t lowerZ = m_accelerator.Record(lower).FixedZ;
        if (p.Z != lowerZ) {
            upper = lower + 1;
            const float gapFactor = 65536.0f / static_cast<float>(m_accelerator.Record(upper).FixedZ - lowerZ);
            const float product = gapFactor * static_cast<float>(p.Z - lowerZ);
            fz = static_cast<std::uint32_t>(static_cast<std::int32_t>(product)) >> 3;
        }
        if (!m_accelerator.Record(lower).Origin || !m_accelerator.Record(upper).Origin)
            return false;
        if (p.X < 0 || p.X >= (m_stack.Width() - 1) * 65536 || p.Y < 0 || p.Y >= (m_stack.Height() - 1) * 65536)
            return false;

        const std::int32_t xi = p.X >> 16, yi = p.Y >> 16;
        // Corners (xi, yi), (xi + 1, yi), (xi, yi + 1), (xi + 1, yi + 1), lower slice first.
        std::uint16_t corners[8];
        for (int k = 0; k < 8; ++k)
            corners[k] = Voxel(k < 4 ? lower : upper, xi + (k & 1), yi + ((k >> 1) & 1));
        if (m_stack.HasPadding() && std::count(corners, corners + 8, std::uint16_t(m_stack.PaddingValue())) != 0)
            return false;

        const std::uint32_t fx = std::uint32_t(p.X & 0xFFFF) >> 3, fy = std::uint32_t(p.Y & 0xFFFF) >> 3;
        const std::uint32_t a = ((fx * fy) >> 16) << 3;           // (xi + 1, yi + 1)
        const std::uint32_t b = ((fx * (8192 - fy)) >> 16) << 3;  // (xi + 1, yi)
        const std::uint32_t c = fy - a;                           // (xi, yi + 1)
        const std::uint32_t d = (8192 - fy) - b;                  // (xi, yi)
        const std::uint32_t planar[4] = {d, b, c, a};
        const std::uint16_t bias = m_stack.IsSigned() ? 0 : 0x8000;
        std::int32_t sum = 0;
        for (int k = 0; k < 4; ++k) {
            const std::uint32_t upperWeight = ((planar[k] * fz) >> 16) << 3;
            const std::uint32_t lowerWeight = planar[k] - upperWeight;
            sum += static_cast<std::int32_t>(lowerWeight) * static_cast<std::int16_t>(corners[k] - bias);
            sum += static_cast<std::int32_t>(upperWeight) * static_cast<std::int16_t>(corners[4 + k] - bias);
        }
        value = static_cast<std::uint32_t>((sum + 0x10001000) >> 13) & 0xFFFF;
        return true;
    }

    /// Whether a highest or lowest sample `u` (a pixel value) takes the place of `held`:
    /// when it is better, or whatever it is when `held` is the padding value.
    [[nodiscard]] bool Replaces(std::uint16_t u, std::uint16_t held) const
    {
        const auto key = [&](std::uint16_t v) { return m_stack.IsSigned() ? std::int16_t(v) : std::int32_t{v}; };
        return (m_mode == 0 ? key(u) > key(held) : key(u) < key(held)) ||
               (m_stack.HasPadding() && held == static_cast<std::uint16_t>(m_stack.PaddingValue()));
    }

private:
    // Registers wrap; unsigned arithmetic does the same without undefined behaviour.
    struct Fixed {
        std::int32_t X, Y, Z;
        static std::int32_t Wrap(std::int32_t a, std::int32_t b, std::int32_t n)
        {
            return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) +
                                             static_cast<std::uint32_t>(b) * static_cast<std::uint32_t>(n));
        }
        friend Fixed operator+(Fixed a, Fixed b) { return {Wrap(a.X, b.X, 1), Wrap(a.Y, b.Y, 1), Wrap(a.Z, b.Z, 1)}; }
        friend Fixed operator*(Fixed a, std::int32_t n) { return {Wrap(0, a.X, n), Wrap(0, a.Y, n), Wrap(0, a.Z, n)}; }
    };

    static std::int32_t FloorDiv(std::int32_t a, std::int32_t b)
    {
        return static_cast<std::int32_t>(std::floor(static_cast<double>(a) / b));
    }

    Fixed Fix(const QelVector3& v) const
    {
        return {static_cast<std::int32_t>(v.X() * 65536.0f), static_cast<std::int32_t>(v.Y() * 65536.0f),
                static_cast<std::int32_t>(v.Z() * m_scale)};
    }

    Fixed PixelPosition(std::int32_t x, std::int32_t y) const
    {
        float p[3];
        for (int axis = 0; axis < 3; ++axis) {
            const float value = m_start[axis] + m_x[axis] * static_cast<float>(x) + m_y[axis] * static_cast<float>(y);
            p[axis] = std::clamp(value, -32768.0f, 32767.0f);
        }
        return {static_cast<std::int32_t>(p[0] * 65536.0f), static_cast<std::int32_t>(p[1] * 65536.0f),
                static_cast<std::int32_t>(p[2] * m_scale + m_offset)};
    }

    std::uint16_t Voxel(std::int32_t slice, std::int32_t x, std::int32_t y) const
    {
        const QelFixedPointSliceRecord& record = m_accelerator.Record(slice);
        std::uint16_t value;
        std::memcpy(&value, record.Origin + std::ptrdiff_t{y} * record.BytesPerLine + std::ptrdiff_t{x} * 2, 2);
        return value;
    }

    std::uint16_t Pixel(const Fixed& first) const
    {
        const std::uint16_t bias = m_stack.IsSigned() ? 0x8000 : 0;
        std::uint32_t sum = 0, count = 0;
        std::uint16_t held = 0;
        for (std::int32_t s = 0; s < m_samples; ++s) {
            std::uint32_t value;
            const Fixed p = first + m_slabStep * s;
            if (!Sample(p.X, p.Y, p.Z, value))
                continue;
            if (m_mode != 0 && m_mode != 1) {
                sum += value;
                ++count;
                continue;
            }
            const auto u = static_cast<std::uint16_t>(value - bias);
            if (count == 0 || Replaces(u, held))
                held = u;
            count = 1;
        }
        if (count == 0)
            return m_undefined;
        return m_mode == 0 || m_mode == 1 ? held : static_cast<std::uint16_t>(sum / count - bias);
    }

    const QelImageStack& m_stack;
    const QelImageStackFixedPointAccelerator& m_accelerator;
    std::int32_t m_mode, m_samples;
    std::uint16_t m_undefined;
    std::int32_t m_tileWidth;
    float m_scale = 0.0f, m_offset = 0.0f;
    QelVector3 m_x{}, m_y{};
    float m_start[3] = {};
    Fixed m_xStep{}, m_rowStep{}, m_slabStep{};
};
