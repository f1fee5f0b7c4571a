#pragma once

#include "base/QelIsa.h"
#include "base/QelVector.h"

#include <array>

/// An affine transform of 3-D space: a 3 by 4 matrix of floats in row order, where
/// element (r, c) is value 4r + c, columns 0 to 2 the linear part and column 3 the
/// translation, with an implicit last row (0, 0, 0, 1). Points are column vectors,
/// p' = M p, so A.Multiply(B) applies B first. A plain value; copy it freely.
class alignas(16) QelMatrix34 {
public:
    static constexpr int kRows = 3;
    static constexpr int kColumns = 4;
    static constexpr int kCount = kRows * kColumns;

    /// The identity.
    constexpr QelMatrix34() noexcept : m_m{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0} {}
    /// The 12 elements in row order.
    constexpr explicit QelMatrix34(const std::array<float, kCount>& values) noexcept
        : m_m{values[0], values[1], values[2],  values[3],  values[4],  values[5],
              values[6], values[7], values[8], values[9], values[10], values[11]} {}

    [[nodiscard]] static QelMatrix34 Identity() noexcept;
    [[nodiscard]] static QelMatrix34 Zero() noexcept;
    // The axis permutations that reorder a volume for the shear-warp
    // factorisation; each is its own inverse.
    /// Rows (0 1 0), (1 0 0), (0 0 1): exchanges x and y.
    [[nodiscard]] static QelMatrix34 SwapXY() noexcept;
    /// Rows (0 0 1), (0 1 0), (1 0 0): exchanges x and z.
    [[nodiscard]] static QelMatrix34 SwapXZ() noexcept;
    /// Rows (1 0 0), (0 0 1), (0 1 0): exchanges y and z.
    [[nodiscard]] static QelMatrix34 SwapYZ() noexcept;
    [[nodiscard]] static QelMatrix34 Scale(float x, float y, float z) noexcept;
    [[nodiscard]] static QelMatrix34 Translate(float x, float y, float z) noexcept;
    /// Right-handed rotation about axis 0 (x), 1 (y) or 2 (z): a positive sine turns
    /// y towards z, z towards x and x towards y respectively. Asserts on other axes.
    [[nodiscard]] static QelMatrix34 RotAxSinCos(int axis, float sine, float cosine);
    /// As RotAxSinCos with the sine and cosine of `radians`.
    [[nodiscard]] static QelMatrix34 RotAx(int axis, double radians);
    /// The identity plus two terms in the column of `axis`: axis 0 puts b at (1,0)
    /// and c at (2,0); axis 1 puts a at (0,1) and c at (2,1); axis 2 puts a at (0,2)
    /// and b at (1,2). The term of the axis itself is ignored. Asserts on other axes.
    [[nodiscard]] static QelMatrix34 Shear(int axis, float a, float b, float c);
    /// The matrix with `x`, `y` and `z` as its rows, no translation. Reports an
    /// error when the three are (nearly) coplanar.
    [[nodiscard]] static QelMatrix34 FromAxes(const QelVector3& x, const QelVector3& y, const QelVector3& z);
    /// The view matrix of an eye at `position` looking along `direction`, with `up`
    /// showing upwards: right-handed, the eye at the origin looking down -z, up along
    /// +y and right along +x. Rows are right = normalised direction x up, the true up
    /// = right x direction, and minus the normalised direction. A zero direction,
    /// a zero up or an up along the direction makes the affected rows zero.
    /// Worked in doubles.
    [[nodiscard]] static QelMatrix34 LookAt(float positionX, float positionY, float positionZ,
                                           float directionX, float directionY, float directionZ,
                                           float upX, float upY, float upZ) noexcept;

    // Caller ensures 0 <= row < 3 and 0 <= column < 4.
    [[nodiscard]] constexpr float Elem(int row, int column) const noexcept { return m_m[kColumns * row + column]; }
    constexpr void SetElem(int row, int column, float value) noexcept { m_m[kColumns * row + column] = value; }
    /// The 12 elements in row order, for the vector bodies.
    [[nodiscard]] constexpr const float* Data() const noexcept { return m_m; }

    /// Rows dotted with `in` plus the translation. `in` and `out` may be the same.
    void TransformPoint(const QelVector3& in, QelVector3& out) const noexcept;
    /// The linear part applied to `in`. `in` and `out` may be the same.
    void TransformVector(const QelVector3& in, QelVector3& out) const noexcept;
    /// This matrix after `right`: (this x right) p = this (right p).
    [[nodiscard]] QelMatrix34 Multiply(const QelMatrix34& right) const noexcept;
    friend QelMatrix34 operator*(const QelMatrix34& left, const QelMatrix34& right) noexcept
    {
        return left.Multiply(right);
    }

    /// The affine inverse, worked in doubles; the all-zero matrix when this one is
    /// singular, which is how callers tell.
    [[nodiscard]] QelMatrix34 Inverse() const noexcept;
    /// The transform of surface normals: the transposed inverse of the linear part,
    /// no translation. Asserts when the linear part is singular.
    [[nodiscard]] QelMatrix34 NormalTransformation() const;

    /// All 12 elements equal as floats: a NaN makes it false, and 0 equals -0.
    [[nodiscard]] bool Equals(const QelMatrix34& other) const noexcept { return *this == other; }
    [[nodiscard]] bool IsZero() const noexcept;
    /// The largest absolute value in the linear part.
    [[nodiscard]] float Norm() const noexcept;
    /// The scalar triple product of the rows of the linear part, in doubles.
    [[nodiscard]] double Determinant() const noexcept;

    friend constexpr bool operator==(const QelMatrix34&, const QelMatrix34&) noexcept = default;

private:
    // For results that a body fills at once: nothing to store twice.
    struct Unset {};
    explicit QelMatrix34(Unset) noexcept {}

    float m_m[kCount];
};

/// The bodies of the hot operations, one table per instruction-set level. All
/// tables give the scalar table's bits. Arguments point at row-order elements
/// (12 floats) and vectors of 3 floats; `out` may alias `in` but no matrix.
struct QelMatrix34Kernels {
    void (*multiply)(const float* left, const float* right, float* out) noexcept;
    void (*transformPoint)(const float* matrix, const float* in, float* out) noexcept;
    void (*transformVector)(const float* matrix, const float* in, float* out) noexcept;
};

/// The table for `isa`, which the caller has checked with QelIsaSupported.
[[nodiscard]] const QelMatrix34Kernels& QelMatrix34KernelsFor(QelIsa isa) noexcept;

namespace qel::sse2 {
extern const QelMatrix34Kernels kMatrix34Kernels;
}  // namespace qel::sse2
