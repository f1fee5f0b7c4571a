// The MetaImage reader is our own: the format's only readers on Debian live inside
// large imaging toolkits, while the format is a short "Key = Value" header before
// raw or zlib samples.
#include "MetaImageReader.h"

#include "VolumeFile.h"

#include <map>

namespace Axr {

namespace {

constexpr std::size_t kMaxHeaderBytes = 1 << 20;

[[nodiscard]] std::optional<ScalarType> MetaType(std::string_view name) noexcept
{
    static const std::map<std::string_view, ScalarType> kNames{
        {"MET_CHAR", ScalarType::I8},   {"MET_UCHAR", ScalarType::U8},  {"MET_SHORT", ScalarType::I16},
        {"MET_USHORT", ScalarType::U16}, {"MET_INT", ScalarType::I32},  {"MET_UINT", ScalarType::U32},
        {"MET_LONG", ScalarType::I32},  {"MET_ULONG", ScalarType::U32}, {"MET_FLOAT", ScalarType::F32},
        {"MET_DOUBLE", ScalarType::F64},
    };
    const auto found = kNames.find(name);
    return found == kNames.end() ? std::nullopt : std::optional(found->second);
}

[[nodiscard]] bool IsTrue(std::string_view value) noexcept { return value == "True" || value == "true" || value == "1"; }

}  // namespace

Volume ReadMetaImage(const std::filesystem::path& path)
{
    const std::string name = path.string();
    const std::vector<std::byte> bytes = ReadWholeFile(path);
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), std::min(bytes.size(), kMaxHeaderBytes));

    // Every line is "Key = Value" up to ElementDataFile, which ends the header.
    std::map<std::string, std::string, std::less<>> keys;
    std::size_t at = 0, dataOffset = 0;
    while (dataOffset == 0) {
        std::size_t end = text.find('\n', at);
        if (end == std::string_view::npos) {
            if (text.size() != bytes.size() || at >= text.size())
                throw InputError(name + ": no ElementDataFile line ends the header");
            end = text.size();
        }
        const std::string_view line = Trim(text.substr(at, end - at));
        at = end + 1;
        if (!IsText(line))
            throw InputError(name + ": no ElementDataFile line ends the header");
        if (line.empty())
            continue;
        const auto equals = line.find('=');
        if (equals == std::string_view::npos)
            throw InputError(name + ": header line \"" + std::string(line) + "\" is not \"Key = Value\"");
        const std::string key(Trim(line.substr(0, equals)));
        keys[key] = std::string(Trim(line.substr(equals + 1)));
        if (key == "ElementDataFile")
            dataOffset = std::min(at, bytes.size());
    }
    const auto need = [&](std::string_view key) -> const std::string& {
        const auto found = keys.find(key);
        if (found == keys.end())
            throw InputError(name + ": the header has no " + std::string(key));
        return found->second;
    };
    const auto wrong = [&](std::string_view key, std::string_view wants) {
        return InputError(name + ": \"" + std::string(key) + " = " + need(key) + "\": " + std::string(wants));
    };
    const auto find = [&](std::string_view key) -> const std::string* {
        const auto found = keys.find(key);
        return found == keys.end() ? nullptr : &found->second;
    };

    SampleFile file;
    std::int64_t dimensions = 0;
    if (!ParseNumber(need("NDims"), dimensions) || dimensions < 2 || dimensions > 3)
        throw wrong("NDims", "the tool reads 2 or 3 dimensions");
    const auto sizes = Words(need("DimSize"));
    if (static_cast<std::int64_t>(sizes.size()) != dimensions)
        throw wrong("DimSize", "wants one size per dimension");
    file.size = {1, 1, 1};
    for (std::size_t axis = 0; axis < sizes.size(); ++axis) {
        std::int64_t size = 0;
        if (!ParseNumber(sizes[axis], size) || size < 1 || size > kMaxSide)
            throw wrong("DimSize", "each size must be a whole number from 1 to " + std::to_string(kMaxSide));
        file.size[axis] = static_cast<std::int32_t>(size);
    }
    const auto type = MetaType(need("ElementType"));
    if (!type)
        throw wrong("ElementType", "not a sample type the tool reads (8, 16 or 32-bit integers, float, double)");
    file.type = *type;
    if (const std::string* channels = find("ElementNumberOfChannels"); channels != nullptr && *channels != "1")
        throw wrong("ElementNumberOfChannels", "the tool reads one channel");
    const std::string* spacing = find("ElementSpacing");
    if (spacing == nullptr)
        spacing = find("ElementSize");
    if (spacing != nullptr) {
        const auto words = Words(*spacing);
        if (static_cast<std::int64_t>(words.size()) != dimensions)
            throw InputError(name + ": \"ElementSpacing = " + *spacing + "\": wants one number per dimension");
        for (std::size_t axis = 0; axis < words.size(); ++axis)
            if (!ParseNumber(words[axis], file.spacing[axis]))
                throw InputError(name + ": \"ElementSpacing = " + *spacing + "\": wants one number per dimension");
    }
    const std::string* msb = find("BinaryDataByteOrderMSB");
    if (msb == nullptr)
        msb = find("ElementByteOrderMSB");
    file.byteOrder = msb != nullptr && IsTrue(*msb) ? std::endian::big : std::endian::little;
    if (const std::string* binary = find("BinaryData"); binary != nullptr && !IsTrue(*binary))
        throw wrong("BinaryData", "the tool reads binary data only");
    const std::string* compressed = find("CompressedData");
    const bool isCompressed = compressed != nullptr && IsTrue(*compressed);
    std::int64_t headerSize = 0;
    if (const std::string* skip = find("HeaderSize"); skip != nullptr && !ParseNumber(*skip, headerSize))
        throw wrong("HeaderSize", "wants a whole number");

    const std::string& dataFile = need("ElementDataFile");
    if (dataFile == "LOCAL") {
        return VolumeFromSamples(name, "MetaImage", file,
                                 LoadSamples(name, file, std::span(bytes).subspan(dataOffset), isCompressed, headerSize));
    }
    if (dataFile.starts_with("LIST") || Words(dataFile).size() > 1 || dataFile.find('%') != std::string::npos)
        throw wrong("ElementDataFile", "the tool reads LOCAL or one data file");
    std::filesystem::path dataPath(dataFile);
    if (dataPath.is_relative())
        dataPath = path.parent_path() / dataPath;
    const std::vector<std::byte> data = ReadWholeFile(dataPath);
    return VolumeFromSamples(dataPath.string(), "MetaImage", file,
                             LoadSamples(dataPath.string(), file, data, isCompressed, headerSize));
}

}  // namespace Axr
