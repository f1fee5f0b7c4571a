#include "VolumeInput.h"

#include "CommandLine.h"
#include "Phantom.h"

#include "ax/rendering/Initializer.h"
#include "ax/rendering/MemoryRasterImage.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <vector>

namespace Axr {

namespace {

using Ax::Primitives::GrayscalePixelFormat;
using Ax::Primitives::Size;
using Ax::Rendering::ImageStack;
using Ax::Rendering::MemoryRasterImage;

// The stack holds at most this many images; wider slices would only exhaust memory.
constexpr std::int32_t kMaxDepth = 16384;
constexpr std::int32_t kMaxSide = 65536;

[[nodiscard]] std::string Prefix(std::string_view context) { return std::string(context) + ": "; }

[[nodiscard]] bool ParseDimension(std::string_view text, std::int32_t max, std::int32_t& value)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc{} && end == text.data() + text.size() && value >= 1 && value <= max;
}

}  // namespace

bool ParseVolumeOption(std::string_view context, std::span<const std::string> arguments, std::size_t& i,
                       VolumeSource& source)
{
    const std::string& option = arguments[i];
    std::optional<std::string>* target = option == "--dims"     ? &source.dims
                                         : option == "--type"   ? &source.type
                                         : option == "--endian" ? &source.endian
                                                                : nullptr;
    if (target == nullptr)
        return false;
    if (i + 1 >= arguments.size())
        throw UsageError(Prefix(context) + option + " needs a value");
    *target = arguments[++i];
    return true;
}

bool IsPhantomInput(std::string_view input) noexcept
{
    return input == "phantom" || input.starts_with("phantom:");
}

RawLayout ParseRawLayout(std::string_view context, const VolumeSource& source)
{
    const std::string at = Prefix(context) + source.input + ": ";
    if (!source.dims || !source.type)
        throw UsageError(at + "a raw file needs --dims WxHxD and --type u16|i16");
    RawLayout layout;
    const std::string& dims = *source.dims;
    const auto x1 = dims.find('x');
    const auto x2 = x1 == std::string::npos ? x1 : dims.find('x', x1 + 1);
    const std::string_view text(dims);
    if (x2 == std::string::npos || !ParseDimension(text.substr(0, x1), kMaxSide, layout.width) ||
        !ParseDimension(text.substr(x1 + 1, x2 - x1 - 1), kMaxSide, layout.height) ||
        !ParseDimension(text.substr(x2 + 1), kMaxDepth, layout.depth))
        throw UsageError(at + "--dims wants WxHxD, each at least 1 (depth at most " + std::to_string(kMaxDepth) +
                         "), not '" + dims + "'");
    if (*source.type == "u16")
        layout.type = SampleType::U16;
    else if (*source.type == "i16")
        layout.type = SampleType::I16;
    else
        throw UsageError(at + "--type wants u16 or i16, not '" + *source.type + "'");
    if (source.endian) {
        if (*source.endian == "little")
            layout.byteOrder = std::endian::little;
        else if (*source.endian == "big")
            layout.byteOrder = std::endian::big;
        else
            throw UsageError(at + "--endian wants little or big, not '" + *source.endian + "'");
    }
    return layout;
}

std::string Describe(const RawLayout& layout)
{
    return std::to_string(layout.width) + "x" + std::to_string(layout.height) + "x" + std::to_string(layout.depth) +
           (layout.type == SampleType::I16 ? " i16" : " u16");
}

std::unique_ptr<ImageStack> ReadRawVolume(const std::filesystem::path& path, const RawLayout& layout)
{
    const std::string name = path.string();
    std::error_code error;
    const std::uintmax_t actual = std::filesystem::file_size(path, error);
    if (error)
        throw InputError(name + ": cannot read: " + error.message());
    const std::size_t rowBytes = static_cast<std::size_t>(layout.width) * sizeof(std::uint16_t);
    const std::size_t sliceBytes = rowBytes * static_cast<std::size_t>(layout.height);
    const std::uintmax_t expected = static_cast<std::uintmax_t>(sliceBytes) * static_cast<std::uintmax_t>(layout.depth);
    if (actual != expected)
        throw InputError(name + ": " + std::to_string(actual) + " bytes, expected " + std::to_string(expected) +
                         " for " + Describe(layout));

    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw InputError(name + ": cannot open: " + std::strerror(errno));
    const bool swap = layout.byteOrder != std::endian::native;
    const GrayscalePixelFormat format(2, layout.type == SampleType::I16);
    auto stack = std::make_unique<ImageStack>();
    std::vector<std::uint8_t> bytes(sliceBytes);
    for (std::int32_t k = 0; k < layout.depth; ++k) {
        if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size())))
            throw InputError(name + ": read failed in slice " + std::to_string(k));
        if (swap)
            for (std::size_t b = 0; b + 1 < bytes.size(); b += 2)
                std::swap(bytes[b], bytes[b + 1]);
        auto slice = std::make_shared<MemoryRasterImage>();
        slice->Resize(format, Size(layout.width, layout.height));
        if (slice->OriginAddress() == nullptr)
            throw std::bad_alloc();
        // Rows may be padded in the slice, so copy them one by one.
        for (std::int32_t row = 0; row < layout.height; ++row)
            std::memcpy(slice->GetPixelAddress(0, row), bytes.data() + static_cast<std::size_t>(row) * rowBytes,
                        rowBytes);
        if (!stack->InsertImage(std::move(slice), k))
            throw InputError(name + ": the image stack refused slice " + std::to_string(k));
    }
    return stack;
}

std::unique_ptr<ImageStack> LoadVolume(std::string_view context, const VolumeSource& source)
{
    Ax::Rendering::Initializer::Initialize();
    if (!IsPhantomInput(source.input))
        return ReadRawVolume(source.input, ParseRawLayout(context, source));
    if (source.dims || source.type || source.endian)
        throw UsageError(Prefix(context) + "--dims, --type and --endian are for raw files, not the phantom");
    PhantomOptions options;
    if (source.input != "phantom")
        options.size = ParseIntOption(context, "phantom:N", std::string_view(source.input).substr(8), 16, 1024);
    return MakePhantom(options);
}

}  // namespace Axr
