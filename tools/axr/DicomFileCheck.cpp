#include "DicomFileCheck.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <string_view>

namespace Axr {

namespace {

constexpr std::uint32_t kUndefinedLength = 0xFFFFFFFF;
// Real files nest sequences a few levels deep; a file that seems to nest hundreds is
// damaged, and walking it must not exhaust the stack.
constexpr int kMaxDepth = 32;

enum class Encoding { ExplicitLittle, ImplicitLittle, ExplicitBig };

struct Damage {
    std::string what;
};

struct ElementHeader {
    std::uint16_t group = 0, element = 0;
    char vr[2] = {};
    std::uint32_t length = 0;
    std::uint64_t at = 0;

    [[nodiscard]] bool Is(std::uint16_t g, std::uint16_t e) const noexcept { return group == g && element == e; }
};

[[nodiscard]] std::string TagText(std::uint16_t group, std::uint16_t element)
{
    char text[16];
    std::snprintf(text, sizeof text, "(%04X,%04X)", group, element);
    return text;
}

// Value representations whose length takes four bytes after two reserved ones.
constexpr std::string_view kLongVrs = "OB OD OF OL OV OW SQ SV UC UN UR UT UV";
// GDCM stops the process on an element whose representation it doesn't know.
constexpr std::string_view kShortVrs = "AE AS AT CS DA DS DT FL FD IS LO LT PN SH SL SS ST TM UI UL US";

[[nodiscard]] bool IsIn(std::string_view list, const char vr[2]) noexcept
{
    for (std::size_t at = 0; at + 2 <= list.size(); at += 3)
        if (list[at] == vr[0] && list[at + 1] == vr[1])
            return true;
    return false;
}

[[nodiscard]] bool HasLongLength(const char vr[2]) noexcept { return IsIn(kLongVrs, vr); }

[[nodiscard]] bool IsKnownVr(const char vr[2]) noexcept { return IsIn(kLongVrs, vr) || IsIn(kShortVrs, vr); }

[[nodiscard]] bool IsUpper(unsigned char c) noexcept { return c >= 'A' && c <= 'Z'; }

class Walker {
public:
    Walker(std::ifstream& in, std::uint64_t size) noexcept : m_in(in), m_size(size) {}

    [[nodiscard]] std::uint64_t At() const noexcept { return m_at; }
    [[nodiscard]] bool AtEnd() const noexcept { return m_at == m_size; }

    void Read(void* to, std::size_t count)
    {
        if (m_size - m_at < count)
            throw Damage{"cut short: the file ends at byte " + std::to_string(m_size) + ", inside an element header"};
        m_in.read(static_cast<char*>(to), static_cast<std::streamsize>(count));
        if (static_cast<std::size_t>(m_in.gcount()) != count)
            throw Damage{"read failed at byte " + std::to_string(m_at)};
        m_at += count;
    }

    // The next `count` bytes without moving on; empty near the end.
    [[nodiscard]] std::optional<std::array<unsigned char, 6>> Peek(std::size_t count)
    {
        std::array<unsigned char, 6> bytes{};
        if (count > bytes.size() || m_size - m_at < count)
            return std::nullopt;
        m_in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(count));
        m_in.seekg(static_cast<std::streamoff>(m_at));
        return bytes;
    }

    void SkipValue(const ElementHeader& header)
    {
        if (m_size - m_at < header.length)
            throw Damage{"element " + TagText(header.group, header.element) + " at byte " + std::to_string(header.at) +
                         " runs past the end of the file (" + std::to_string(m_size) + " bytes)"};
        m_at += header.length;
        m_in.seekg(static_cast<std::streamoff>(m_at));
    }

    [[nodiscard]] std::uint16_t Read16(Encoding encoding)
    {
        unsigned char b[2];
        Read(b, 2);
        return static_cast<std::uint16_t>(encoding == Encoding::ExplicitBig ? b[0] << 8 | b[1] : b[1] << 8 | b[0]);
    }

    [[nodiscard]] std::uint32_t Read32(Encoding encoding)
    {
        const std::uint32_t first = Read16(encoding), second = Read16(encoding);
        return encoding == Encoding::ExplicitBig ? first << 16 | second : second << 16 | first;
    }

    [[nodiscard]] ElementHeader ReadHeader(Encoding encoding)
    {
        ElementHeader header;
        header.at = m_at;
        header.group = Read16(encoding);
        header.element = Read16(encoding);
        if (header.group == 0xFFFE || encoding == Encoding::ImplicitLittle) {  // items carry no VR
            header.length = Read32(encoding);
            return header;
        }
        Read(header.vr, 2);
        if (!IsKnownVr(header.vr))
            throw Damage{"element " + TagText(header.group, header.element) + " at byte " + std::to_string(header.at) +
                         " has no known value representation"};
        if (HasLongLength(header.vr)) {
            unsigned char reserved[2];
            Read(reserved, 2);
            header.length = Read32(encoding);
        } else {
            header.length = Read16(encoding);
        }
        return header;
    }

    // Elements up to the end of the file, or of the item when `inItem`.
    void WalkDataSet(Encoding encoding, bool inItem, int depth)
    {
        while (inItem || !AtEnd()) {
            const ElementHeader header = ReadHeader(encoding);
            if (header.group == 0xFFFE) {
                if (inItem && header.element == 0xE00D)
                    return;
                throw Damage{"stray item tag " + TagText(header.group, header.element) + " at byte " +
                             std::to_string(header.at)};
            }
            if (header.length != kUndefinedLength) {
                SkipValue(header);
                continue;
            }
            if (depth >= kMaxDepth)
                throw Damage{"sequences nested more than " + std::to_string(kMaxDepth) + " deep at byte " +
                             std::to_string(header.at)};
            const std::string_view vr(header.vr, 2);
            if (header.Is(0x7FE0, 0x0010))
                WalkItems(encoding, depth + 1, true);
            else if (encoding == Encoding::ImplicitLittle || vr == "SQ")
                WalkItems(encoding, depth + 1, false);
            else if (vr == "UN")  // a sequence GDCM's writer didn't know, in implicit little endian
                WalkItems(Encoding::ImplicitLittle, depth + 1, false);
            else  // GDCM stops the process on these too
                throw Damage{"element " + TagText(header.group, header.element) + " at byte " +
                             std::to_string(header.at) + " has an undefined length"};
        }
    }

    // Items up to the sequence delimiter: data sets, or image fragments of defined length.
    void WalkItems(Encoding encoding, int depth, bool fragments)
    {
        for (;;) {
            const ElementHeader header = ReadHeader(encoding);
            if (header.Is(0xFFFE, 0xE0DD))
                return;
            if (!header.Is(0xFFFE, 0xE000))
                throw Damage{"expected an item at byte " + std::to_string(header.at) + ", found " +
                             TagText(header.group, header.element)};
            if (header.length != kUndefinedLength)
                SkipValue(header);
            else if (fragments)
                throw Damage{"image fragment of undefined length at byte " + std::to_string(header.at)};
            else
                WalkDataSet(encoding, true, depth);
        }
    }

private:
    std::ifstream& m_in;
    std::uint64_t m_size;
    std::uint64_t m_at = 0;
};

// The meta information, always explicit little endian, names the data set's encoding.
[[nodiscard]] Encoding WalkMetaInformation(Walker& walker)
{
    std::string syntax;
    bool hasMeta = false;
    std::optional<std::uint64_t> end;  // where the group length says the meta information ends
    for (;;) {
        const auto group = walker.Peek(2);
        if (!group || (*group)[0] != 2 || (*group)[1] != 0)
            break;
        hasMeta = true;
        const ElementHeader header = walker.ReadHeader(Encoding::ExplicitLittle);
        if (header.element == 0x0000 && header.length == 4) {
            unsigned char length[4];
            walker.Read(length, 4);
            end = walker.At() + (std::uint32_t{length[3]} << 24 | std::uint32_t{length[2]} << 16 |
                                 std::uint32_t{length[1]} << 8 | length[0]);
        } else if (header.element == 0x0010 && header.length <= 64) {
            syntax.resize(header.length);
            walker.Read(syntax.data(), syntax.size());
            syntax.erase(syntax.find_last_not_of(std::string_view(" \0", 2)) + 1);
        } else {
            walker.SkipValue(header);
        }
    }
    // GDCM trusts the group length and stops the process when it disagrees.
    if (end && *end != walker.At())
        throw Damage{"the meta information ends at byte " + std::to_string(walker.At()) + ", not at byte " +
                     std::to_string(*end) + " as its group length says"};
    if (!hasMeta) {  // an old file without meta information shows its VRs, if any
        const auto head = walker.Peek(6);
        return head && IsUpper((*head)[4]) && IsUpper((*head)[5]) ? Encoding::ExplicitLittle
                                                                  : Encoding::ImplicitLittle;
    }
    if (syntax == "1.2.840.10008.1.2")
        return Encoding::ImplicitLittle;
    if (syntax == "1.2.840.10008.1.2.2")
        return Encoding::ExplicitBig;
    if (syntax == "1.2.840.10008.1.2.1.99")
        throw Damage{"deflated data set, which is not read"};
    return Encoding::ExplicitLittle;
}

}  // namespace

DicomFileCheck CheckDicomFile(const std::filesystem::path& path)
{
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    std::ifstream in(path, std::ios::binary);
    if (error || !in)
        return {};
    unsigned char head[132] = {};
    in.read(reinterpret_cast<char*>(head), sizeof head);
    const auto count = static_cast<std::size_t>(in.gcount());
    const bool marked = count == sizeof head && std::memcmp(head + 128, "DICM", 4) == 0;
    // Without the mark, only a file that opens with a little-endian tag of group 2 or
    // 8, as old ones do, is walked at all.
    if (!marked && (count < 8 || (head[0] != 2 && head[0] != 8) || head[1] != 0 || head[3] != 0))
        return {};
    in.clear();
    in.seekg(0);
    Walker walker(in, size);
    try {
        if (marked)
            walker.Read(head, sizeof head);
        const Encoding encoding = WalkMetaInformation(walker);
        if (walker.AtEnd())  // GDCM stops the process on a file that is nothing more
            throw Damage{"cut short: no data set follows the meta information"};
        walker.WalkDataSet(encoding, false, 0);
    } catch (const Damage& damage) {
        if (!marked)
            return {};
        return {true, damage.what};
    }
    return {true, {}};
}

}  // namespace Axr
