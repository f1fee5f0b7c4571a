#include "PngWriter.h"

#include <png.h>

#include <bit>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>


namespace Axr {

namespace {

struct PngFailure {
    char message[256] = "";
    std::jmp_buf jump;
};

[[noreturn]] void OnPngError(png_structp png, png_const_charp message)
{
    auto* failure = static_cast<PngFailure*>(png_get_error_ptr(png));
    std::snprintf(failure->message, sizeof failure->message, "%s", message);
    std::longjmp(failure->jump, 1);
}

void OnPngWarning(png_structp, png_const_charp) {}

// libpng writes through this into the caller's vector. An allocation failure can't
// throw through libpng's C frames, so it becomes a libpng error once out of the
// handler.
void AppendToBytes(png_structp png, png_bytep data, png_size_t length)
{
    auto* bytes = static_cast<std::vector<std::uint8_t>*>(png_get_io_ptr(png));
    bool grown = true;
    try {
        bytes->insert(bytes->end(), data, data + length);
    } catch (const std::bad_alloc&) {
        grown = false;
    }
    if (!grown)
        png_error(png, "out of memory");
}

void FlushNothing(png_structp) {}

// libpng reports errors by longjmp, which skips destructors: everything between the
// setjmp and the end is plain C data, and the output vector lives in the caller's
// frame. False with `failure.message` set on failure.
bool EncodeRows(std::vector<std::uint8_t>* out, png_uint_32 width, png_uint_32 height, int bitDepth,
                png_bytep* rows, PngFailure& failure)
{
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &failure, OnPngError, OnPngWarning);
    if (png == nullptr) {
        std::snprintf(failure.message, sizeof failure.message, "out of memory");
        return false;
    }
    png_infop info = png_create_info_struct(png);
    if (info == nullptr) {
        png_destroy_write_struct(&png, nullptr);
        std::snprintf(failure.message, sizeof failure.message, "out of memory");
        return false;
    }
    if (setjmp(failure.jump)) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_set_write_fn(png, out, AppendToBytes, FlushNothing);
    png_set_IHDR(png, info, width, height, bitDepth, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    // PNG stores 16-bit samples big-endian.
    if (bitDepth == 16 && std::endian::native == std::endian::little)
        png_set_swap(png);
    png_write_image(png, rows);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

[[noreturn]] void Fail(const std::filesystem::path& path, const std::string& reason)
{
    throw PngError("cannot write " + path.string() + ": " + reason);
}

void Write(const std::filesystem::path& path, std::int32_t width, std::int32_t height, int bitDepth,
           const std::uint8_t* pixels, std::size_t pixelCount)
{
    if (width <= 0 || height <= 0)
        Fail(path, "empty picture (" + std::to_string(width) + " x " + std::to_string(height) + ")");
    if (pixelCount != static_cast<std::size_t>(width) * static_cast<std::size_t>(height))
        Fail(path, std::to_string(pixelCount) + " pixels given for " + std::to_string(width) + " x " +
                       std::to_string(height));

    const std::size_t rowBytes = static_cast<std::size_t>(width) * (bitDepth / 8);
    std::vector<png_bytep> rows(static_cast<std::size_t>(height));
    for (std::size_t y = 0; y < rows.size(); ++y)
        rows[y] = const_cast<png_bytep>(pixels + y * rowBytes);  // libpng only reads them

    std::vector<std::uint8_t> encoded;
    PngFailure failure;
    if (!EncodeRows(&encoded, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), bitDepth,
                    rows.data(), failure))
        Fail(path, failure.message);
    WriteFileAtomically(path, encoded);
}

}  // namespace

void WriteGreyPng(const std::filesystem::path& path, std::int32_t width, std::int32_t height,
                  std::span<const std::uint8_t> pixels)
{
    Write(path, width, height, 8, pixels.data(), pixels.size());
}

void WriteGreyPng(const std::filesystem::path& path, std::int32_t width, std::int32_t height,
                  std::span<const std::uint16_t> pixels)
{
    Write(path, width, height, 16, reinterpret_cast<const std::uint8_t*>(pixels.data()), pixels.size());
}

}  // namespace Axr
