#pragma once

/// A value that may not have been given. Reading Value() when HasValue() is false
/// gives the default T; the owner of the member decides whether that is an error
/// and how to report it.
template <class T>
class QelMaybe {
public:
    constexpr QelMaybe() = default;
    constexpr QelMaybe(const T& value) : m_value(value), m_hasValue(true) {}

    constexpr QelMaybe& operator=(const T& value)
    {
        m_value = value;
        m_hasValue = true;
        return *this;
    }

    [[nodiscard]] constexpr bool HasValue() const noexcept { return m_hasValue; }
    [[nodiscard]] constexpr const T& Value() const noexcept { return m_value; }
    [[nodiscard]] constexpr T& Value() noexcept { return m_value; }

private:
    T m_value{};
    bool m_hasValue = false;
};
