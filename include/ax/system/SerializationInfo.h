#pragma once

#include "ax/system/BitArray.h"

#include <cstdint>
#include <iosfwd>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace Ax::System {

/// The named values an object persists itself as, and their binary file encoding.
///
/// An object adds its values in GetObjectData and reads them back in its persisting
/// constructor; the names and their meaning belong to the object's type, whose name
/// the container carries. Values are 32-bit integers or bit arrays.
///
/// File encoding (all integers little-endian):
///
///     offset  size  field
///     0       4     magic "AXKV"
///     4       4     format version, 1
///     8       2     n, bytes of the type name; then the name, UTF-8
///     ...     4     number of entries
///     then per entry:
///             2     n, bytes of the key; then the key, UTF-8
///             1     kind: 1 = 32-bit integer, 2 = bit array
///             4     kind 1: the value (two's complement)
///             8     kind 2: the bit count L; then ceil(L / 8) bytes, bit i in bit
///                   (i mod 8) of byte i / 8, the unused high bits of the last byte 0
///
/// Nothing follows the last entry. Keys are unique within a container.
class SerializationInfo {
public:
    using Value = std::variant<std::int32_t, BitArray>;

    explicit SerializationInfo(std::string typeName = {});

    [[nodiscard]] const std::string& FullTypeName() const noexcept { return m_typeName; }
    [[nodiscard]] std::int32_t MemberCount() const noexcept { return static_cast<std::int32_t>(m_entries.size()); }
    [[nodiscard]] const std::vector<std::pair<std::string, Value>>& Entries() const noexcept { return m_entries; }

    /// Throws SerializationException "Cannot add the same member twice to a
    /// SerializationInfo object." when the name is taken.
    void AddValue(const std::string& name, std::int32_t value);
    void AddValue(const std::string& name, BitArray value);

    /// Throw SerializationException "Member '<name>' was not found." for a missing
    /// name, and "Member '<name>' is not a <kind>." for a value of the other kind.
    [[nodiscard]] std::int32_t GetInt32(const std::string& name) const;
    [[nodiscard]] const BitArray& GetBitArray(const std::string& name) const;

    /// Writes the encoding above. Throws SerializationException when the stream fails.
    void Write(std::ostream& out) const;
    /// Reads one container. Throws SerializationException, naming the field, for a
    /// stream that is cut short, isn't this encoding, has an unknown kind, a repeated
    /// key or bytes after the last entry. Memory grows only with bytes actually read.
    [[nodiscard]] static SerializationInfo Read(std::istream& in);

private:
    void Add(const std::string& name, Value value);
    [[nodiscard]] const Value& Find(const std::string& name) const;

    std::string m_typeName;
    std::vector<std::pair<std::string, Value>> m_entries;
};

}  // namespace Ax::System
