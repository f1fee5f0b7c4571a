#include "ax/system/BitArray.h"

#include "ax/system/Exception.h"

#include <string>

namespace Ax::System {

namespace {

std::size_t BytesFor(std::int64_t length)
{
    return static_cast<std::size_t>((length + 7) / 8);
}

}  // namespace

BitArray::BitArray(std::int64_t length) : m_length(length)
{
    if (length < 0)
        throw ArgumentOutOfRangeException("A BitArray cannot have a negative length.", "length");
    m_bytes.assign(BytesFor(length), 0);
}

BitArray::BitArray(std::vector<std::uint8_t> bytes, std::int64_t length) : m_bytes(std::move(bytes)), m_length(length)
{
    if (length < 0)
        throw ArgumentOutOfRangeException("A BitArray cannot have a negative length.", "length");
    if (m_bytes.size() != BytesFor(length))
        throw ArgumentException(std::to_string(length) + " bits take " + std::to_string(BytesFor(length)) +
                                    " bytes, not " + std::to_string(m_bytes.size()) + ".",
                                "bytes");
    // The bits past the end stay 0, so that equal arrays have equal bytes.
    if (length % 8 != 0)
        m_bytes.back() &= static_cast<std::uint8_t>((1u << (length % 8)) - 1u);
}

void BitArray::CheckIndex(std::int64_t index) const
{
    if (index < 0 || index >= m_length)
        throw ArgumentOutOfRangeException("Index was out of range. Must be non-negative and less than the size of "
                                          "the collection.",
                                          "index");
}

bool BitArray::Get(std::int64_t index) const
{
    CheckIndex(index);
    return m_bytes[static_cast<std::size_t>(index >> 3)] >> (index & 7) & 1u;
}

void BitArray::Set(std::int64_t index, bool value)
{
    CheckIndex(index);
    std::uint8_t& byte = m_bytes[static_cast<std::size_t>(index >> 3)];
    const auto bit = static_cast<std::uint8_t>(1u << (index & 7));
    byte = value ? static_cast<std::uint8_t>(byte | bit) : static_cast<std::uint8_t>(byte & ~bit);
}

}  // namespace Ax::System
