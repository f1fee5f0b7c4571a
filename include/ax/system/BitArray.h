#pragma once

#include <cstdint>
#include <vector>

namespace Ax::System {

/// A fixed number of bits, packed eight to a byte: bit i is bit (i mod 8) of byte
/// i / 8, and the bits of the last byte beyond Length() are always 0.
class BitArray {
public:
    /// `length` clear bits. Throws ArgumentOutOfRangeException for a negative length.
    explicit BitArray(std::int64_t length);
    /// The bits of `bytes`, `length` of them. Throws ArgumentException when the byte
    /// count isn't the one that length needs.
    BitArray(std::vector<std::uint8_t> bytes, std::int64_t length);

    [[nodiscard]] std::int64_t Length() const noexcept { return m_length; }
    /// Throws ArgumentOutOfRangeException outside 0 .. Length() - 1.
    [[nodiscard]] bool Get(std::int64_t index) const;
    void Set(std::int64_t index, bool value);
    [[nodiscard]] const std::vector<std::uint8_t>& Bytes() const noexcept { return m_bytes; }
    [[nodiscard]] std::vector<std::uint8_t>& Bytes() noexcept { return m_bytes; }

    friend bool operator==(const BitArray&, const BitArray&) = default;

private:
    void CheckIndex(std::int64_t index) const;

    std::vector<std::uint8_t> m_bytes;
    std::int64_t m_length;
};

}  // namespace Ax::System
