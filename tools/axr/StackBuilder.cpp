#include "StackBuilder.h"

#include "VolumeInput.h"

#include "ax/rendering/MemoryRasterImage.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>

namespace Axr {

namespace {

using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::Size;
using Ax::Rendering::ImageStack;
using Ax::Rendering::MemoryRasterImage;

struct TypeInfo {
    ScalarType type;
    std::string_view name;
    std::size_t size;
};

constexpr std::array kTypes{
    TypeInfo{ScalarType::I8, "i8", 1},   TypeInfo{ScalarType::U8, "u8", 1},   TypeInfo{ScalarType::I16, "i16", 2},
    TypeInfo{ScalarType::U16, "u16", 2}, TypeInfo{ScalarType::I32, "i32", 4}, TypeInfo{ScalarType::U32, "u32", 4},
    TypeInfo{ScalarType::F32, "f32", 4}, TypeInfo{ScalarType::F64, "f64", 8},
};

[[nodiscard]] const TypeInfo& InfoOf(ScalarType type) noexcept
{
    return kTypes[static_cast<std::size_t>(type)];
}

template <typename T>
[[nodiscard]] T Load(const std::byte* at) noexcept
{
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

// The stored value of sample `i`, after masking to the stored bits.
class SampleReader {
public:
    explicit SampleReader(const SampleLayout& layout) noexcept
        : m_type(layout.type), m_size(SizeOf(layout.type)), m_bits(layout.bitsStored)
    {
        const std::int32_t width = static_cast<std::int32_t>(m_size * 8);
        if (m_bits <= 0 || m_bits >= width || m_type == ScalarType::F32 || m_type == ScalarType::F64)
            m_bits = 0;
        m_isSigned = m_type == ScalarType::I8 || m_type == ScalarType::I16 || m_type == ScalarType::I32;
    }

    [[nodiscard]] double operator()(const std::byte* slice, std::size_t i) const noexcept
    {
        const std::byte* at = slice + i * m_size;
        switch (m_type) {
        case ScalarType::F32:
            return Load<float>(at);
        case ScalarType::F64:
            return Load<double>(at);
        default:
            break;
        }
        std::int64_t raw = 0;
        switch (m_type) {
        case ScalarType::I8: raw = Load<std::int8_t>(at); break;
        case ScalarType::U8: raw = Load<std::uint8_t>(at); break;
        case ScalarType::I16: raw = Load<std::int16_t>(at); break;
        case ScalarType::U16: raw = Load<std::uint16_t>(at); break;
        case ScalarType::I32: raw = Load<std::int32_t>(at); break;
        default: raw = Load<std::uint32_t>(at); break;
        }
        return static_cast<double>(KeepStoredBits(raw, m_bits, m_isSigned));
    }

private:
    ScalarType m_type;
    std::size_t m_size;
    std::int32_t m_bits;
    bool m_isSigned = false;
};

struct Range {
    double lowest = std::numeric_limits<double>::infinity();
    double highest = -std::numeric_limits<double>::infinity();
    bool rounded = false;

    [[nodiscard]] bool Within(double low, double high) const noexcept { return lowest >= low && highest <= high; }
};

[[nodiscard]] bool IsUnsignedType(ScalarType type) noexcept
{
    return type == ScalarType::U8 || type == ScalarType::U16 || type == ScalarType::U32;
}

[[nodiscard]] std::string Number(double value)
{
    std::string text = std::to_string(value);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.ends_with('.'))
        text.pop_back();
    return text;
}

[[nodiscard]] StackConversion Choose(std::string_view name, const SampleLayout& layout, const Range& range)
{
    StackConversion conversion;
    conversion.rounded = range.rounded;
    if (range.lowest > range.highest)  // nothing but padding
        return conversion;
    if (layout.hounsfield && range.Within(-1024, 65535 - 1024)) {
        conversion.offset = 1024;
        return conversion;
    }
    const bool fitsUnsigned = range.Within(0, 65535), fitsSigned = range.Within(-32768, 32767);
    if (fitsUnsigned && (IsUnsignedType(layout.type) || !fitsSigned))
        return conversion;
    if (!fitsSigned)
        throw InputError(std::string(name) + ": values " + Number(range.lowest) + " .. " + Number(range.highest) +
                         " fit no 16-bit sample type");
    conversion.isSigned = true;
    return conversion;
}

}  // namespace

std::size_t SizeOf(ScalarType type) noexcept { return InfoOf(type).size; }

std::int64_t KeepStoredBits(std::int64_t raw, std::int32_t bits, bool isSigned) noexcept
{
    if (bits <= 0 || bits >= 64)
        return raw;
    raw &= (std::int64_t{1} << bits) - 1;
    if (isSigned && (raw >> (bits - 1)) != 0)
        raw -= std::int64_t{1} << bits;
    return raw;
}

std::string_view NameOf(ScalarType type) noexcept { return InfoOf(type).name; }

std::optional<ScalarType> ScalarTypeNamed(std::string_view name) noexcept
{
    for (const TypeInfo& info : kTypes)
        if (info.name == name)
            return info.type;
    return std::nullopt;
}

void SwapSampleBytes(std::span<std::byte> bytes, std::size_t size) noexcept
{
    if (size < 2)
        return;
    for (std::size_t at = 0; at + size <= bytes.size(); at += size)
        std::reverse(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                     bytes.begin() + static_cast<std::ptrdiff_t>(at + size));
}

std::unique_ptr<ImageStack> BuildStack(std::string_view name, const SampleLayout& layout,
                                       std::span<const SliceSamples> slices, StackConversion* conversionOut)
{
    const SampleReader read(layout);
    const std::size_t count = static_cast<std::size_t>(layout.width) * static_cast<std::size_t>(layout.height);
    const auto isPadding = [&](double stored) { return layout.paddingStored && stored == *layout.paddingStored; };

    // First the range of the rescaled values, which decides the stack's sample type.
    Range range;
    for (std::size_t k = 0; k < slices.size(); ++k) {
        const SliceSamples& slice = slices[k];
        for (std::size_t i = 0; i < count; ++i) {
            const double stored = read(slice.bytes.data(), i);
            if (isPadding(stored))
                continue;
            const double value = stored * slice.rescale.slope + slice.rescale.intercept;
            if (!std::isfinite(value))
                throw InputError(std::string(name) + ": slice " + std::to_string(k) + " holds a value that is not a number");
            const double whole = std::round(value);
            range.rounded = range.rounded || whole != value;
            range.lowest = std::min(range.lowest, whole);
            range.highest = std::max(range.highest, whole);
        }
    }
    const StackConversion conversion = Choose(name, layout, range);
    const double low = conversion.isSigned ? -32768 : 0, high = conversion.isSigned ? 32767 : 65535;

    auto stack = std::make_unique<ImageStack>();
    std::int32_t paddingValue = 0;
    if (layout.paddingStored) {
        const Rescale first = slices.empty() ? Rescale{} : slices.front().rescale;
        // A padding value beyond the range may share its stored value with real data
        // at the edge of the range; that is the price of keeping 16 bits.
        paddingValue = static_cast<std::int32_t>(
            std::clamp(std::round(*layout.paddingStored * first.slope + first.intercept) + conversion.offset, low, high));
        stack->SetPaddingValue(paddingValue);
    }
    const GrayscalePixelFormat format(2, conversion.isSigned);
    for (std::size_t k = 0; k < slices.size(); ++k) {
        const SliceSamples& slice = slices[k];
        auto image = std::make_shared<MemoryRasterImage>();
        image->Resize(format, Size(layout.width, layout.height));
        if (image->OriginAddress() == nullptr)
            throw std::bad_alloc();
        for (std::int32_t y = 0; y < layout.height; ++y) {
            std::uint8_t* row = image->GetPixelAddress(0, y);
            for (std::int32_t x = 0; x < layout.width; ++x) {
                const std::size_t i = static_cast<std::size_t>(y) * static_cast<std::size_t>(layout.width) +
                                      static_cast<std::size_t>(x);
                const double stored = read(slice.bytes.data(), i);
                const std::int32_t value =
                    isPadding(stored)
                        ? paddingValue
                        : static_cast<std::int32_t>(std::round(stored * slice.rescale.slope + slice.rescale.intercept)) +
                              conversion.offset;
                const auto bits = static_cast<std::uint16_t>(value);
                std::memcpy(row + 2 * static_cast<std::size_t>(x), &bits, sizeof bits);
            }
        }
        if (!stack->InsertImage(std::move(image), slice.z))
            throw InputError(std::string(name) + ": the image stack refused slice " + std::to_string(k) + " at z " +
                             Number(slice.z));
    }
    if (conversionOut != nullptr)
        *conversionOut = conversion;
    return stack;
}

}  // namespace Axr
