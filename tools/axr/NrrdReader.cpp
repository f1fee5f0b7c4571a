// The NRRD reader is our own: the format's reference library on Debian is an old
// snapshot of a large toolkit, while what a CT volume needs of the format (a text
// header, raw or gzip samples) is a page of code that gives one-line errors.
#include "NrrdReader.h"

#include "VolumeFile.h"

#include <cmath>
#include <map>

namespace Axr {

namespace {

constexpr std::size_t kMaxHeaderBytes = 1 << 20;

[[nodiscard]] std::optional<ScalarType> NrrdType(std::string_view name) noexcept
{
    static const std::map<std::string_view, ScalarType> kNames{
        {"signed char", ScalarType::I8},         {"int8", ScalarType::I8},
        {"int8_t", ScalarType::I8},              {"uchar", ScalarType::U8},
        {"unsigned char", ScalarType::U8},       {"uint8", ScalarType::U8},
        {"uint8_t", ScalarType::U8},             {"short", ScalarType::I16},
        {"short int", ScalarType::I16},          {"signed short", ScalarType::I16},
        {"signed short int", ScalarType::I16},   {"int16", ScalarType::I16},
        {"int16_t", ScalarType::I16},            {"ushort", ScalarType::U16},
        {"unsigned short", ScalarType::U16},     {"unsigned short int", ScalarType::U16},
        {"uint16", ScalarType::U16},             {"uint16_t", ScalarType::U16},
        {"int", ScalarType::I32},                {"signed int", ScalarType::I32},
        {"int32", ScalarType::I32},              {"int32_t", ScalarType::I32},
        {"uint", ScalarType::U32},               {"unsigned int", ScalarType::U32},
        {"uint32", ScalarType::U32},             {"uint32_t", ScalarType::U32},
        {"float", ScalarType::F32},              {"double", ScalarType::F64},
    };
    const auto found = kNames.find(name);
    return found == kNames.end() ? std::nullopt : std::optional(found->second);
}

// The length of each "(x,y,z)" vector of "space directions"; NaN for "none".
[[nodiscard]] bool DirectionLengths(std::string_view text, std::vector<double>& lengths)
{
    for (std::string_view word : Words(text)) {
        if (word == "none") {
            lengths.push_back(std::nan(""));
            continue;
        }
        if (!word.starts_with('(') || !word.ends_with(')'))
            return false;
        word = word.substr(1, word.size() - 2);
        double sum = 0;
        while (!word.empty()) {
            const auto comma = std::min(word.find(','), word.size());
            double component = 0;
            if (!ParseNumber(Trim(word.substr(0, comma)), component))
                return false;
            sum += component * component;
            word.remove_prefix(std::min(comma + 1, word.size()));
        }
        lengths.push_back(std::sqrt(sum));
    }
    return true;
}

class NrrdHeader {
public:
    NrrdHeader(std::string name, std::span<const std::byte> bytes) : m_name(std::move(name))
    {
        const std::string_view text(reinterpret_cast<const char*>(bytes.data()),
                                    std::min(bytes.size(), kMaxHeaderBytes));
        if (!text.starts_with("NRRD000"))
            throw InputError(m_name + ": not a NRRD file (it doesn't start with NRRD000x)");
        std::size_t at = 0;
        bool first = true;
        for (;;) {
            const std::size_t end = text.find('\n', at);
            if (end == std::string_view::npos) {
                if (text.size() == bytes.size()) {  // a detached header may end without a blank line
                    m_dataOffset = bytes.size();
                    if (at < text.size())
                        Add(text.substr(at), first);
                    break;
                }
                throw InputError(m_name + ": no end of the header in its first " + std::to_string(kMaxHeaderBytes) +
                                 " bytes");
            }
            const std::string_view line = Trim(text.substr(at, end - at));
            at = end + 1;
            if (!IsText(line))
                throw InputError(m_name + ": no blank line ends the header before the data");
            if (line.empty()) {
                m_dataOffset = at;
                break;
            }
            Add(line, first);
            first = false;
        }
    }

    [[nodiscard]] const std::string* Find(std::string_view field) const
    {
        const auto found = m_fields.find(std::string(field));
        return found == m_fields.end() ? nullptr : &found->second;
    }

    [[nodiscard]] const std::string& Need(std::string_view field) const
    {
        if (const std::string* value = Find(field))
            return *value;
        throw InputError(m_name + ": the header has no \"" + std::string(field) + "\" field");
    }

    [[noreturn]] void Wrong(std::string_view field, std::string_view wants) const
    {
        throw InputError(m_name + ": \"" + std::string(field) + ": " + Need(field) + "\": " + std::string(wants));
    }

    [[nodiscard]] std::size_t DataOffset() const noexcept { return m_dataOffset; }

private:
    void Add(std::string_view line, bool first)
    {
        if (first || line.starts_with('#') || line.find(":=") != std::string_view::npos)
            return;  // the magic line, a comment, or a key/value pair the tool has no use for
        const auto colon = line.find(": ");
        if (colon == std::string_view::npos)
            throw InputError(m_name + ": header line \"" + std::string(line) + "\" is not \"field: value\"");
        m_fields[std::string(line.substr(0, colon))] = std::string(Trim(line.substr(colon + 2)));
    }

    std::string m_name;
    std::map<std::string, std::string> m_fields;
    std::size_t m_dataOffset = 0;
};

}  // namespace

Volume ReadNrrd(const std::filesystem::path& path)
{
    const std::string name = path.string();
    const std::vector<std::byte> bytes = ReadWholeFile(path);
    const NrrdHeader header(name, bytes);

    SampleFile file;
    const auto type = NrrdType(header.Need("type"));
    if (!type)
        header.Wrong("type", "not a sample type the tool reads (8, 16 or 32-bit integers, float, double)");
    file.type = *type;

    std::int64_t dimension = 0;
    if (!ParseNumber(header.Need("dimension"), dimension) || dimension < 2 || dimension > 3)
        header.Wrong("dimension", "the tool reads 2 or 3 dimensions");
    const auto sizes = Words(header.Need("sizes"));
    if (static_cast<std::int64_t>(sizes.size()) != dimension)
        header.Wrong("sizes", "wants one size per dimension");
    file.size = {1, 1, 1};
    for (std::size_t axis = 0; axis < sizes.size(); ++axis) {
        std::int64_t size = 0;
        if (!ParseNumber(sizes[axis], size) || size < 1 || size > kMaxSide)
            header.Wrong("sizes", "each size must be a whole number from 1 to " + std::to_string(kMaxSide));
        file.size[axis] = static_cast<std::int32_t>(size);
    }

    std::vector<double> spacings;
    if (const std::string* directions = header.Find("space directions")) {
        if (!DirectionLengths(*directions, spacings) || spacings.size() != sizes.size())
            header.Wrong("space directions", "wants one (x,y,z) vector or none per axis");
    } else if (const std::string* text = header.Find("spacings")) {
        for (std::string_view word : Words(*text)) {
            double spacing = 0;
            if (!ParseNumber(word, spacing) && word != "nan" && word != "NaN")
                header.Wrong("spacings", "wants one number per axis");
            spacings.push_back(word.starts_with('n') || word.starts_with('N') ? std::nan("") : spacing);
        }
        if (spacings.size() != sizes.size())
            header.Wrong("spacings", "wants one number per axis");
    }
    for (std::size_t axis = 0; axis < spacings.size(); ++axis)
        file.spacing[axis] = spacings[axis];
    if (dimension == 2 && file.spacing[2] != file.spacing[2])
        file.spacing[2] = 1;

    if (SizeOf(file.type) > 1) {
        const std::string& endian = header.Need("endian");
        if (endian != "little" && endian != "big")
            header.Wrong("endian", "wants little or big");
        file.byteOrder = endian == "big" ? std::endian::big : std::endian::little;
    }
    const std::string& encoding = header.Need("encoding");
    if (encoding != "raw" && encoding != "gzip" && encoding != "gz")
        header.Wrong("encoding", "the tool reads raw and gzip");
    std::int64_t byteSkip = 0;
    if (const std::string* skip = header.Find("byte skip"); skip != nullptr && !ParseNumber(*skip, byteSkip))
        header.Wrong("byte skip", "wants a whole number");
    if (const std::string* skip = header.Find("line skip"); skip != nullptr && *skip != "0")
        header.Wrong("line skip", "the tool reads no line skip");

    const std::string* dataFile = header.Find("data file");
    if (dataFile == nullptr)
        dataFile = header.Find("datafile");
    std::vector<std::byte> detached;
    std::span<const std::byte> data = std::span(bytes).subspan(header.DataOffset());
    std::string dataName = name;
    if (dataFile != nullptr) {
        if (dataFile->starts_with("LIST") || Words(*dataFile).size() > 1)
            throw InputError(name + ": \"data file: " + *dataFile + "\": the tool reads one data file");
        std::filesystem::path dataPath(*dataFile);
        if (dataPath.is_relative())
            dataPath = path.parent_path() / dataPath;
        detached = ReadWholeFile(dataPath);
        data = detached;
        dataName = dataPath.string();
    }
    return VolumeFromSamples(dataName, "NRRD", file,
                             LoadSamples(dataName, file, data, encoding != "raw", byteSkip));
}

}  // namespace Axr
