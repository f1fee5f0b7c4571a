#pragma once

#include <cstdint>

// Small geometric values, passed by value in hot loops. Their default
// constructors leave the components unset, so that large arrays of them cost
// nothing to make; write `QelVector3{}` for the zero vector. Equality is exact
// float comparison: a NaN component makes two vectors unequal.

/// Two floats: a point or offset in a picture.
class QelVector2 {
public:
    QelVector2() = default;
    constexpr QelVector2(float x, float y) noexcept : m_v{x, y} {}

    [[nodiscard]] constexpr float X() const noexcept { return m_v[0]; }
    [[nodiscard]] constexpr float Y() const noexcept { return m_v[1]; }
    constexpr void SetX(float x) noexcept { m_v[0] = x; }
    constexpr void SetY(float y) noexcept { m_v[1] = y; }
    // Caller ensures 0 <= axis < 2.
    [[nodiscard]] constexpr float operator[](int axis) const noexcept { return m_v[axis]; }
    [[nodiscard]] constexpr float& operator[](int axis) noexcept { return m_v[axis]; }

    friend constexpr bool operator==(const QelVector2&, const QelVector2&) noexcept = default;

private:
    float m_v[2];
};

/// Two 32-bit integers: a pixel position.
class QelVector2i {
public:
    QelVector2i() = default;
    constexpr QelVector2i(std::int32_t x, std::int32_t y) noexcept : m_v{x, y} {}

    [[nodiscard]] constexpr std::int32_t X() const noexcept { return m_v[0]; }
    [[nodiscard]] constexpr std::int32_t Y() const noexcept { return m_v[1]; }
    constexpr void SetX(std::int32_t x) noexcept { m_v[0] = x; }
    constexpr void SetY(std::int32_t y) noexcept { m_v[1] = y; }
    // Caller ensures 0 <= axis < 2.
    [[nodiscard]] constexpr std::int32_t operator[](int axis) const noexcept { return m_v[axis]; }
    [[nodiscard]] constexpr std::int32_t& operator[](int axis) noexcept { return m_v[axis]; }

    friend constexpr bool operator==(const QelVector2i&, const QelVector2i&) noexcept = default;

private:
    std::int32_t m_v[2];
};

/// Three floats: a point, direction or colour. Axis 0 is x, 1 is y, 2 is z.
class QelVector3 {
public:
    QelVector3() = default;
    constexpr QelVector3(float x, float y, float z) noexcept : m_v{x, y, z} {}

    [[nodiscard]] constexpr float X() const noexcept { return m_v[0]; }
    [[nodiscard]] constexpr float Y() const noexcept { return m_v[1]; }
    [[nodiscard]] constexpr float Z() const noexcept { return m_v[2]; }
    constexpr void SetX(float x) noexcept { m_v[0] = x; }
    constexpr void SetY(float y) noexcept { m_v[1] = y; }
    constexpr void SetZ(float z) noexcept { m_v[2] = z; }
    // Caller ensures 0 <= axis < 3.
    [[nodiscard]] constexpr float operator[](int axis) const noexcept { return m_v[axis]; }
    [[nodiscard]] constexpr float& operator[](int axis) noexcept { return m_v[axis]; }
    /// The three components in order, for the vector bodies.
    [[nodiscard]] constexpr const float* Data() const noexcept { return m_v; }
    [[nodiscard]] constexpr float* Data() noexcept { return m_v; }

    // Sums run x, y, z left to right, so that every body that repeats them gets
    // the same bits.
    [[nodiscard]] constexpr float Dot(const QelVector3& other) const noexcept
    {
        return (m_v[0] * other.m_v[0] + m_v[1] * other.m_v[1]) + m_v[2] * other.m_v[2];
    }
    [[nodiscard]] constexpr QelVector3 Cross(const QelVector3& other) const noexcept
    {
        return {m_v[1] * other.m_v[2] - m_v[2] * other.m_v[1],
                m_v[2] * other.m_v[0] - m_v[0] * other.m_v[2],
                m_v[0] * other.m_v[1] - m_v[1] * other.m_v[0]};
    }

    friend constexpr QelVector3 operator+(const QelVector3& a, const QelVector3& b) noexcept
    {
        return {a.m_v[0] + b.m_v[0], a.m_v[1] + b.m_v[1], a.m_v[2] + b.m_v[2]};
    }
    friend constexpr QelVector3 operator-(const QelVector3& a, const QelVector3& b) noexcept
    {
        return {a.m_v[0] - b.m_v[0], a.m_v[1] - b.m_v[1], a.m_v[2] - b.m_v[2]};
    }
    friend constexpr QelVector3 operator-(const QelVector3& a) noexcept
    {
        return {-a.m_v[0], -a.m_v[1], -a.m_v[2]};
    }
    friend constexpr QelVector3 operator*(const QelVector3& a, float s) noexcept
    {
        return {a.m_v[0] * s, a.m_v[1] * s, a.m_v[2] * s};
    }
    friend constexpr QelVector3 operator*(float s, const QelVector3& a) noexcept { return a * s; }

    friend constexpr bool operator==(const QelVector3&, const QelVector3&) noexcept = default;

private:
    float m_v[3];
};

/// Four floats on a 16-byte boundary, so that a vector body loads them in one go.
class alignas(16) QelVector4 {
public:
    QelVector4() = default;
    constexpr QelVector4(float x, float y, float z, float w) noexcept : m_v{x, y, z, w} {}

    [[nodiscard]] constexpr float X() const noexcept { return m_v[0]; }
    [[nodiscard]] constexpr float Y() const noexcept { return m_v[1]; }
    [[nodiscard]] constexpr float Z() const noexcept { return m_v[2]; }
    [[nodiscard]] constexpr float W() const noexcept { return m_v[3]; }
    constexpr void SetX(float x) noexcept { m_v[0] = x; }
    constexpr void SetY(float y) noexcept { m_v[1] = y; }
    constexpr void SetZ(float z) noexcept { m_v[2] = z; }
    constexpr void SetW(float w) noexcept { m_v[3] = w; }
    // Caller ensures 0 <= axis < 4.
    [[nodiscard]] constexpr float operator[](int axis) const noexcept { return m_v[axis]; }
    [[nodiscard]] constexpr float& operator[](int axis) noexcept { return m_v[axis]; }
    [[nodiscard]] constexpr const float* Data() const noexcept { return m_v; }
    [[nodiscard]] constexpr float* Data() noexcept { return m_v; }

    friend constexpr bool operator==(const QelVector4&, const QelVector4&) noexcept = default;

private:
    float m_v[4];
};

/// The half-space test of a clipping plane: n . p + d, with n = (X, Y, Z) and d the
/// distance. `Normalised` records that |n| is 1, so that users need not
/// normalise again. Default: the zero plane, not normalised.
class QelPlaneEquation {
public:
    constexpr QelPlaneEquation() noexcept = default;
    constexpr QelPlaneEquation(float x, float y, float z, float distance, bool normalised = false) noexcept
        : m_x(x), m_y(y), m_z(z), m_distance(distance), m_normalised(normalised) {}

    [[nodiscard]] constexpr float X() const noexcept { return m_x; }
    [[nodiscard]] constexpr float Y() const noexcept { return m_y; }
    [[nodiscard]] constexpr float Z() const noexcept { return m_z; }
    [[nodiscard]] constexpr QelVector3 Normal() const noexcept { return {m_x, m_y, m_z}; }
    [[nodiscard]] constexpr float Distance() const noexcept { return m_distance; }
    [[nodiscard]] constexpr bool Normalised() const noexcept { return m_normalised; }
    constexpr void SetNormal(const QelVector3& normal) noexcept
    {
        m_x = normal.X();
        m_y = normal.Y();
        m_z = normal.Z();
    }
    constexpr void SetDistance(float distance) noexcept { m_distance = distance; }
    constexpr void SetNormalised(bool normalised) noexcept { m_normalised = normalised; }

    /// n . p + d: positive on the side that clipping cuts away.
    [[nodiscard]] constexpr float Evaluate(const QelVector3& point) const noexcept
    {
        return Normal().Dot(point) + m_distance;
    }

    friend constexpr bool operator==(const QelPlaneEquation&, const QelPlaneEquation&) noexcept = default;

private:
    float m_x = 0.0f;
    float m_y = 0.0f;
    float m_z = 0.0f;
    float m_distance = 0.0f;
    bool m_normalised = false;
};
