// The NIfTI reader is our own: Debian's NIfTI library installs a CMake package that
// points at files it doesn't ship, and prints its errors itself, while a single-file
// NIfTI-1 volume is one fixed 348-byte header before the samples.
#include "NiftiReader.h"

#include "VolumeFile.h"

#include <cmath>
#include <cstring>

namespace Axr {

namespace {

constexpr std::size_t kHeaderBytes = 348;
// Extensions may sit between the header and the samples; more than this is not a
// volume the tool reads.
constexpr double kMaxSampleOffset = 1 << 24;

[[nodiscard]] std::optional<ScalarType> NiftiType(std::int16_t code) noexcept
{
    switch (code) {
    case 2: return ScalarType::U8;
    case 4: return ScalarType::I16;
    case 8: return ScalarType::I32;
    case 16: return ScalarType::F32;
    case 64: return ScalarType::F64;
    case 256: return ScalarType::I8;
    case 512: return ScalarType::U16;
    case 768: return ScalarType::U32;
    default: return std::nullopt;
    }
}

// The header's fields in native byte order.
class NiftiHeader {
public:
    NiftiHeader(const std::string& name, std::span<const std::byte> bytes) : m_bytes(bytes)
    {
        const auto size = Field<std::int32_t>(0);
        std::int32_t swapped = size;
        SwapSampleBytes(std::as_writable_bytes(std::span(&swapped, 1)), sizeof swapped);
        if (size != 348 && swapped != 348)
            throw InputError(name + (size == 540 || swapped == 540 ? ": a NIfTI-2 file; the tool reads NIfTI-1"
                                                                    : ": not a NIfTI-1 file (sizeof_hdr is not 348)"));
        m_swap = size != 348;
        char magic[4];
        std::memcpy(magic, bytes.data() + 344, sizeof magic);
        if (std::memcmp(magic, "ni1", 4) == 0)
            throw InputError(name + ": the header of a .hdr/.img pair; the tool reads single .nii files");
        if (std::memcmp(magic, "n+1", 4) != 0)
            throw InputError(name + ": not a NIfTI-1 file (no n+1 magic)");
    }

    template <typename T>
    [[nodiscard]] T Field(std::size_t offset) const noexcept
    {
        T value;
        std::memcpy(&value, m_bytes.data() + offset, sizeof value);
        if (m_swap)
            SwapSampleBytes(std::as_writable_bytes(std::span(&value, 1)), sizeof value);
        return value;
    }

    [[nodiscard]] std::endian ByteOrder() const noexcept
    {
        return m_swap == (std::endian::native == std::endian::little) ? std::endian::big : std::endian::little;
    }

private:
    std::span<const std::byte> m_bytes;
    bool m_swap = false;
};

// The sample layout and the samples' offset in the file.
[[nodiscard]] SampleFile Describe(const std::string& name, const NiftiHeader& header, std::size_t& offset)
{
    SampleFile file;
    const auto dimensions = header.Field<std::int16_t>(40);
    if (dimensions < 1 || dimensions > 7)
        throw InputError(name + ": dim[0] is " + std::to_string(dimensions) + " (1 to 7)");
    file.size = {1, 1, 1};
    for (std::int16_t axis = 1; axis <= dimensions; ++axis) {
        const auto size = header.Field<std::int16_t>(40 + 2 * static_cast<std::size_t>(axis));
        if (size < 1)
            throw InputError(name + ": dim[" + std::to_string(axis) + "] is " + std::to_string(size));
        if (axis <= 3)
            file.size[static_cast<std::size_t>(axis - 1)] = size;
        else if (size != 1)
            throw InputError(name + ": dim[" + std::to_string(axis) + "] is " + std::to_string(size) +
                             "; the tool reads one volume, not a series of them");
    }
    const auto code = header.Field<std::int16_t>(70);
    const auto type = NiftiType(code);
    if (!type)
        throw InputError(name + ": datatype " + std::to_string(code) +
                         " is not a sample type the tool reads (8, 16 or 32-bit integers, float, double)");
    file.type = *type;
    if (header.Field<std::int16_t>(72) != static_cast<std::int16_t>(8 * SizeOf(file.type)))
        throw InputError(name + ": bitpix " + std::to_string(header.Field<std::int16_t>(72)) + " doesn't match datatype " +
                         std::to_string(code));
    for (std::size_t axis = 0; axis < 3; ++axis)
        file.spacing[axis] = std::fabs(header.Field<float>(76 + 4 * (axis + 1)));
    if (dimensions < 3)
        file.spacing[2] = 1;
    const auto sampleOffset = header.Field<float>(108);
    if (!(sampleOffset >= kHeaderBytes && sampleOffset <= kMaxSampleOffset))
        throw InputError(name + ": vox_offset " + std::to_string(sampleOffset) + " is not where samples can start");
    offset = static_cast<std::size_t>(sampleOffset);
    const auto slope = header.Field<float>(112), intercept = header.Field<float>(116);
    // A slope of 0 (or none at all) means the samples are the values.
    if (std::isfinite(slope) && slope != 0 && std::isfinite(intercept) && (slope != 1 || intercept != 0)) {
        file.rescale = {slope, intercept};
        file.notes.push_back("values rescaled: " + std::to_string(slope) + " x sample + " + std::to_string(intercept));
    }
    file.byteOrder = header.ByteOrder();
    return file;
}

}  // namespace

Volume ReadNifti(const std::filesystem::path& path)
{
    const std::string name = path.string();
    const std::vector<std::byte> bytes = ReadWholeFile(path);
    const bool compressed = bytes.size() >= 2 && bytes[0] == std::byte{0x1F} && bytes[1] == std::byte{0x8B};
    if (!compressed) {
        if (bytes.size() < kHeaderBytes)
            throw InputError(name + ": " + std::to_string(bytes.size()) + " bytes, too short for a NIfTI-1 header");
        std::size_t offset = 0;
        const SampleFile file = Describe(name, NiftiHeader(name, bytes), offset);
        if (offset > bytes.size())
            throw InputError(name + ": the samples would start beyond the end of the file");
        return VolumeFromSamples(name, "NIfTI", file, LoadSamples(name, file, std::span(bytes).subspan(offset), false));
    }
    Inflater inflater(bytes, name);
    std::vector<std::byte> head(kHeaderBytes);
    inflater.Read(head);
    std::size_t offset = 0;
    const SampleFile file = Describe(name, NiftiHeader(name, head), offset);
    const std::size_t sampleBytes = SampleBytes(name, file);
    CheckCompressedClaim(name, bytes.size(), offset + sampleBytes);
    std::vector<std::byte> skipped(offset - kHeaderBytes);
    inflater.Read(skipped);
    std::vector<std::byte> samples(sampleBytes);
    inflater.Read(samples);
    return VolumeFromSamples(name, "NIfTI", file, std::move(samples));
}

}  // namespace Axr
