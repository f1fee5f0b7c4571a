#include "ax/system/SerializationInfo.h"

#include "ax/system/Exception.h"

#include <algorithm>
#include <array>
#include <istream>
#include <ostream>

namespace Ax::System {

namespace {

constexpr std::array<char, 4> kMagic = {'A', 'X', 'K', 'V'};
constexpr std::uint32_t kVersion = 1;
constexpr std::uint8_t kInt32Kind = 1;
constexpr std::uint8_t kBitArrayKind = 2;
// Bit arrays are read in pieces of this many bytes, so a count that promises more
// than the stream holds fails on the first missing piece, not on a huge allocation.
constexpr std::size_t kReadPiece = 1 << 20;

class Writer {
public:
    explicit Writer(std::ostream& out) : m_out(out) {}

    void Bytes(const void* data, std::size_t count)
    {
        if (!m_out.write(static_cast<const char*>(data), static_cast<std::streamsize>(count)))
            throw SerializationException("Writing the persisted form failed.");
    }
    void Unsigned(std::uint64_t value, int size)
    {
        std::array<std::uint8_t, 8> bytes{};
        for (int k = 0; k < size; ++k)
            bytes[k] = static_cast<std::uint8_t>(value >> (8 * k));
        Bytes(bytes.data(), static_cast<std::size_t>(size));
    }
    void Text(const std::string& text)
    {
        if (text.size() > 0xFFFF)
            throw SerializationException("A name of " + std::to_string(text.size()) +
                                         " bytes is too long for the persisted form.");
        Unsigned(text.size(), 2);
        Bytes(text.data(), text.size());
    }

private:
    std::ostream& m_out;
};

class Reader {
public:
    explicit Reader(std::istream& in) : m_in(in) {}

    void Bytes(void* data, std::size_t count, const char* field)
    {
        if (!m_in.read(static_cast<char*>(data), static_cast<std::streamsize>(count)))
            throw SerializationException(std::string("The persisted form ends inside ") + field + ".");
    }
    std::uint64_t Unsigned(int size, const char* field)
    {
        std::array<std::uint8_t, 8> bytes{};
        Bytes(bytes.data(), static_cast<std::size_t>(size), field);
        std::uint64_t value = 0;
        for (int k = 0; k < size; ++k)
            value |= std::uint64_t{bytes[k]} << (8 * k);
        return value;
    }
    std::string Text(const char* field)
    {
        std::string text(Unsigned(2, field), '\0');
        Bytes(text.data(), text.size(), field);
        return text;
    }
    std::vector<std::uint8_t> Piecewise(std::uint64_t count, const char* field)
    {
        std::vector<std::uint8_t> bytes;
        while (bytes.size() < count) {
            const std::size_t at = bytes.size();
            bytes.resize(at + static_cast<std::size_t>(std::min<std::uint64_t>(kReadPiece, count - at)));
            Bytes(bytes.data() + at, bytes.size() - at, field);
        }
        return bytes;
    }
    [[nodiscard]] bool AtEnd() { return m_in.peek() == std::istream::traits_type::eof(); }

private:
    std::istream& m_in;
};

}  // namespace

SerializationInfo::SerializationInfo(std::string typeName) : m_typeName(std::move(typeName)) {}

void SerializationInfo::Add(const std::string& name, Value value)
{
    const bool taken = std::any_of(m_entries.begin(), m_entries.end(),
                                   [&name](const auto& entry) { return entry.first == name; });
    if (taken)
        throw SerializationException("Cannot add the same member twice to a SerializationInfo object.");
    m_entries.emplace_back(name, std::move(value));
}

void SerializationInfo::AddValue(const std::string& name, std::int32_t value)
{
    Add(name, value);
}

void SerializationInfo::AddValue(const std::string& name, BitArray value)
{
    Add(name, std::move(value));
}

const SerializationInfo::Value& SerializationInfo::Find(const std::string& name) const
{
    const auto found = std::find_if(m_entries.begin(), m_entries.end(),
                                    [&name](const auto& entry) { return entry.first == name; });
    if (found == m_entries.end())
        throw SerializationException("Member '" + name + "' was not found.");
    return found->second;
}

std::int32_t SerializationInfo::GetInt32(const std::string& name) const
{
    const Value& value = Find(name);
    if (const auto* number = std::get_if<std::int32_t>(&value))
        return *number;
    throw SerializationException("Member '" + name + "' is not a 32-bit integer.");
}

const BitArray& SerializationInfo::GetBitArray(const std::string& name) const
{
    const Value& value = Find(name);
    if (const auto* bits = std::get_if<BitArray>(&value))
        return *bits;
    throw SerializationException("Member '" + name + "' is not a bit array.");
}

void SerializationInfo::Write(std::ostream& out) const
{
    Writer writer(out);
    writer.Bytes(kMagic.data(), kMagic.size());
    writer.Unsigned(kVersion, 4);
    writer.Text(m_typeName);
    writer.Unsigned(m_entries.size(), 4);
    for (const auto& [name, value] : m_entries) {
        writer.Text(name);
        if (const auto* number = std::get_if<std::int32_t>(&value)) {
            writer.Unsigned(kInt32Kind, 1);
            writer.Unsigned(static_cast<std::uint32_t>(*number), 4);
        } else {
            const BitArray& bits = std::get<BitArray>(value);
            writer.Unsigned(kBitArrayKind, 1);
            writer.Unsigned(static_cast<std::uint64_t>(bits.Length()), 8);
            writer.Bytes(bits.Bytes().data(), bits.Bytes().size());
        }
    }
    if (!out.flush())
        throw SerializationException("Writing the persisted form failed.");
}

SerializationInfo SerializationInfo::Read(std::istream& in)
{
    Reader reader(in);
    std::array<char, 4> magic{};
    reader.Bytes(magic.data(), magic.size(), "the magic number");
    if (magic != kMagic)
        throw SerializationException("This is not a persisted form: it doesn't start with \"AXKV\".");
    const std::uint64_t version = reader.Unsigned(4, "the version");
    if (version != kVersion)
        throw SerializationException("The persisted form has version " + std::to_string(version) +
                                     "; this library reads version 1.");
    SerializationInfo info(reader.Text("the type name"));
    const std::uint64_t count = reader.Unsigned(4, "the entry count");
    // Every entry takes at least 7 bytes, so a lying count runs out of stream long
    // before the list grows large.
    for (std::uint64_t n = 0; n < count; ++n) {
        std::string name = reader.Text("a key");
        const auto kind = static_cast<std::uint8_t>(reader.Unsigned(1, "a kind"));
        if (kind == kInt32Kind) {
            info.Add(name, static_cast<std::int32_t>(static_cast<std::uint32_t>(reader.Unsigned(4, "a value"))));
        } else if (kind == kBitArrayKind) {
            const std::uint64_t length = reader.Unsigned(8, "a bit count");
            if (length > static_cast<std::uint64_t>(INT64_MAX) - 7)
                throw SerializationException("Member '" + name + "' claims " + std::to_string(length) + " bits.");
            std::vector<std::uint8_t> bytes = reader.Piecewise((length + 7) / 8, "a bit array");
            const auto bits = static_cast<std::int64_t>(length);
            if (bits % 8 != 0 && (bytes.back() >> (bits % 8)) != 0)
                throw SerializationException("Member '" + name + "' has bits set beyond its length.");
            info.Add(name, BitArray(std::move(bytes), bits));
        } else {
            throw SerializationException("Member '" + name + "' has the unknown kind " + std::to_string(kind) + ".");
        }
    }
    if (!reader.AtEnd())
        throw SerializationException("The persisted form goes on after its last entry.");
    return info;
}

}  // namespace Ax::System
