#include "FileOutput.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Axr {

namespace {

[[noreturn]] void Fail(const std::filesystem::path& path, const std::string& reason)
{
    throw FileError("cannot write " + path.string() + ": " + reason);
}

void AppendSamples(std::vector<std::uint8_t>& bytes, std::span<const std::uint16_t> pixels, bool bigEndian)
{
    for (const std::uint16_t value : pixels) {
        const auto high = static_cast<std::uint8_t>(value >> 8), low = static_cast<std::uint8_t>(value & 0xFF);
        bytes.push_back(bigEndian ? high : low);
        bytes.push_back(bigEndian ? low : high);
    }
}

}  // namespace

void WriteFileAtomically(const std::filesystem::path& path, std::span<const std::uint8_t> bytes)
{
    // Same folder as the target, so the rename stays on one file system and replaces
    // the target in one step.
    std::string temporary = path.string() + ".tmp-XXXXXX";
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0)
        Fail(path, std::strerror(errno));
    // mkstemp makes the file private; give it the mode a plain create would.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);
    std::string reason;
    for (std::size_t done = 0; done < bytes.size() && reason.empty();) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno != EINTR)
            reason = std::strerror(errno);
        else if (n > 0)
            done += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0 && reason.empty())
        reason = std::strerror(errno);
    if (reason.empty() && std::rename(temporary.c_str(), path.c_str()) != 0)
        reason = std::strerror(errno);
    if (!reason.empty()) {
        ::unlink(temporary.c_str());
        Fail(path, reason);
    }
}

std::vector<std::uint8_t> EncodePgm16(std::int32_t width, std::int32_t height, std::span<const std::uint16_t> pixels)
{
    const std::string header = "P5\n" + std::to_string(width) + " " + std::to_string(height) + "\n65535\n";
    std::vector<std::uint8_t> bytes(header.begin(), header.end());
    bytes.reserve(header.size() + pixels.size() * 2);
    AppendSamples(bytes, pixels, true);
    return bytes;
}

std::vector<std::uint16_t> CanvasPixels(const Ax::Rendering::RasterImage& canvas)
{
    std::vector<std::uint16_t> pixels(static_cast<std::size_t>(canvas.Width()) * canvas.Height());
    const std::size_t rowBytes = static_cast<std::size_t>(canvas.Width()) * sizeof(std::uint16_t);
    for (std::int32_t row = 0; row < canvas.Height(); ++row)
        std::memcpy(pixels.data() + static_cast<std::size_t>(row) * canvas.Width(), canvas.GetPixelAddress(0, row),
                    rowBytes);
    return pixels;
}

std::vector<std::uint8_t> EncodeRaw16(std::span<const std::uint16_t> pixels)
{
    std::vector<std::uint8_t> bytes;
    bytes.reserve(pixels.size() * 2);
    AppendSamples(bytes, pixels, false);
    return bytes;
}

}  // namespace Axr
