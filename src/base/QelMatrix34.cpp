#include "base/QelMatrix34.h"

#include "base/QelDebug.h"

#include <algorithm>
#include <cmath>

namespace qel::scalar {
namespace {

// The reference bodies. Every sum runs left to right, column 0 first and the
// translation last; the vector bodies repeat that order lane by lane, and the build
// forbids fused multiply-adds, so all tables agree bit for bit.

void Multiply(const float* left, const float* right, float* out) noexcept
{
    for (int r = 0; r < QelMatrix34::kRows; ++r) {
        const float* row = left + QelMatrix34::kColumns * r;
        for (int c = 0; c < QelMatrix34::kColumns; ++c) {
            float sum = (row[0] * right[c] + row[1] * right[4 + c]) + row[2] * right[8 + c];
            // The implicit last row of `right` is (0, 0, 0, 1): only column 3
            // picks up this row's translation.
            if (c == 3)
                sum = sum + row[3];
            out[QelMatrix34::kColumns * r + c] = sum;
        }
    }
}

void TransformPoint(const float* m, const float* in, float* out) noexcept
{
    const float x = in[0], y = in[1], z = in[2];  // read all before `out`, which may be `in`
    for (int r = 0; r < QelMatrix34::kRows; ++r) {
        const float* row = m + QelMatrix34::kColumns * r;
        out[r] = ((row[0] * x + row[1] * y) + row[2] * z) + row[3];
    }
}

void TransformVector(const float* m, const float* in, float* out) noexcept
{
    const float x = in[0], y = in[1], z = in[2];
    for (int r = 0; r < QelMatrix34::kRows; ++r) {
        const float* row = m + QelMatrix34::kColumns * r;
        out[r] = (row[0] * x + row[1] * y) + row[2] * z;
    }
}

}  // namespace

constinit const QelMatrix34Kernels kMatrix34Kernels{&Multiply, &TransformPoint, &TransformVector};

}  // namespace qel::scalar

const QelMatrix34Kernels& QelMatrix34KernelsFor(QelIsa isa) noexcept
{
    switch (isa) {
    case QelIsa::Scalar:
        break;
    case QelIsa::Sse2:
    // A 3 by 4 product fills at most four lanes, so eight-lane registers would
    // only add shuffles: AVX2 machines run the SSE2 bodies.
    case QelIsa::Avx2:
    case QelIsa::Avx512:
        return qel::sse2::kMatrix34Kernels;
    }
    return qel::scalar::kMatrix34Kernels;
}

namespace {

// Chosen once per process. The tables agree bit for bit, so a QelIsaLimit that is
// live at the first call changes only the speed of later ones.
const QelMatrix34Kernels& Kernels() noexcept
{
    static const QelMatrix34Kernels& kernels = QelMatrix34KernelsFor(QelBestIsa());
    return kernels;
}

// A determinant at most this fraction of the product of the row lengths counts
// as zero. The double determinant of an exactly singular float matrix comes out
// as rounding noise of about 2^-50 of that product; rows that are independent by
// less than 2^-44 carry no meaning in float data anyway.
constexpr double kSingularRatio = 0x1p-44;

// FromAxes rejects axes whose scalar triple product is this close to zero.
constexpr double kCoplanarLimit = 0x1p-52;

struct Double3 {
    double x, y, z;
};

Double3 Cross(const Double3& a, const Double3& b) noexcept
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

double Dot(const Double3& a, const Double3& b) noexcept
{
    return (a.x * b.x + a.y * b.y) + a.z * b.z;
}

double Length(const Double3& a) noexcept
{
    return std::sqrt(Dot(a, a));
}

// The unit vector along `a`, or the zero vector when `a` has no length.
Double3 Normalised(const Double3& a) noexcept
{
    const double length = Length(a);
    if (length == 0.0)
        return {0.0, 0.0, 0.0};
    return {a.x / length, a.y / length, a.z / length};
}

Double3 Row(const QelMatrix34& m, int row) noexcept
{
    return {m.Elem(row, 0), m.Elem(row, 1), m.Elem(row, 2)};
}

void SetRow(QelMatrix34& m, int row, const Double3& linear, double translation) noexcept
{
    m.SetElem(row, 0, static_cast<float>(linear.x));
    m.SetElem(row, 1, static_cast<float>(linear.y));
    m.SetElem(row, 2, static_cast<float>(linear.z));
    m.SetElem(row, 3, static_cast<float>(translation));
}

bool IsAxisInRange(int axis) noexcept
{
    return axis >= 0 && axis < 3;
}

}  // namespace

QelMatrix34 QelMatrix34::Identity() noexcept
{
    return QelMatrix34();
}

QelMatrix34 QelMatrix34::Zero() noexcept
{
    return QelMatrix34(std::array<float, kCount>{});
}

QelMatrix34 QelMatrix34::SwapXY() noexcept
{
    return QelMatrix34({0, 1, 0, 0,
                        1, 0, 0, 0,
                        0, 0, 1, 0});
}

QelMatrix34 QelMatrix34::SwapXZ() noexcept
{
    return QelMatrix34({0, 0, 1, 0,
                        0, 1, 0, 0,
                        1, 0, 0, 0});
}

QelMatrix34 QelMatrix34::SwapYZ() noexcept
{
    return QelMatrix34({1, 0, 0, 0,
                        0, 0, 1, 0,
                        0, 1, 0, 0});
}

QelMatrix34 QelMatrix34::Scale(float x, float y, float z) noexcept
{
    return QelMatrix34({x, 0, 0, 0,
                        0, y, 0, 0,
                        0, 0, z, 0});
}

QelMatrix34 QelMatrix34::Translate(float x, float y, float z) noexcept
{
    return QelMatrix34({1, 0, 0, x,
                        0, 1, 0, y,
                        0, 0, 1, z});
}

QelMatrix34 QelMatrix34::RotAxSinCos(int axis, float sine, float cosine)
{
    QEL_ASSERT(IsAxisInRange(axis),
               "QelMatrix34::RotAxSinCos: Axis out of range.\n"
               "Required: [0..2]. Given: %d.\n",
               axis);
    switch (axis) {
    case 0:
        return QelMatrix34({1, 0, 0, 0,
                            0, cosine, -sine, 0,
                            0, sine, cosine, 0});
    case 1:
        return QelMatrix34({cosine, 0, sine, 0,
                            0, 1, 0, 0,
                            -sine, 0, cosine, 0});
    case 2:
        return QelMatrix34({cosine, -sine, 0, 0,
                            sine, cosine, 0, 0,
                            0, 0, 1, 0});
    default:
        return Identity();  // only when the bug handler let the report return
    }
}

QelMatrix34 QelMatrix34::RotAx(int axis, double radians)
{
    return RotAxSinCos(axis, static_cast<float>(std::sin(radians)), static_cast<float>(std::cos(radians)));
}

QelMatrix34 QelMatrix34::Shear(int axis, float a, float b, float c)
{
    QEL_ASSERT(IsAxisInRange(axis),
               "QelMatrix34::Shear: Axis out of range.\n"
               "Required: [0..2]. Given: %d.\n",
               axis);
    QelMatrix34 m;
    switch (axis) {
    case 0:
        m.SetElem(1, 0, b);
        m.SetElem(2, 0, c);
        break;
    case 1:
        m.SetElem(0, 1, a);
        m.SetElem(2, 1, c);
        break;
    case 2:
        m.SetElem(0, 2, a);
        m.SetElem(1, 2, b);
        break;
    default:
        break;
    }
    return m;
}

QelMatrix34 QelMatrix34::FromAxes(const QelVector3& x, const QelVector3& y, const QelVector3& z)
{
    const QelMatrix34 m({x.X(), x.Y(), x.Z(), 0,
                         y.X(), y.Y(), y.Z(), 0,
                         z.X(), z.Y(), z.Z(), 0});
    if (std::abs(m.Determinant()) <= kCoplanarLimit) {
        QEL_ERROR("Matrix34: Illegal linear combination of coplanar vectors: "
                  "(%g, %g, %g), (%g, %g, %g) and (%g, %g, %g)",
                  x.X(), x.Y(), x.Z(), y.X(), y.Y(), y.Z(), z.X(), z.Y(), z.Z());
    }
    return m;
}

QelMatrix34 QelMatrix34::LookAt(float positionX, float positionY, float positionZ, float directionX,
                                float directionY, float directionZ, float upX, float upY, float upZ) noexcept
{
    const Double3 position{positionX, positionY, positionZ};
    const Double3 forward = Normalised({directionX, directionY, directionZ});
    const Double3 right = Normalised(Cross(forward, {upX, upY, upZ}));
    // Both factors are unit and perpendicular (or zero), so this is unit (or zero).
    const Double3 up = Cross(right, forward);
    // 0 - v rather than -v: a missing axis gives +0, not -0.
    const Double3 back{0.0 - forward.x, 0.0 - forward.y, 0.0 - forward.z};

    QelMatrix34 m;
    SetRow(m, 0, right, 0.0 - Dot(right, position));
    SetRow(m, 1, up, 0.0 - Dot(up, position));
    SetRow(m, 2, back, 0.0 - Dot(back, position));
    return m;
}

void QelMatrix34::TransformPoint(const QelVector3& in, QelVector3& out) const noexcept
{
    Kernels().transformPoint(m_m, in.Data(), out.Data());
}

void QelMatrix34::TransformVector(const QelVector3& in, QelVector3& out) const noexcept
{
    Kernels().transformVector(m_m, in.Data(), out.Data());
}

QelMatrix34 QelMatrix34::Multiply(const QelMatrix34& right) const noexcept
{
    QelMatrix34 product{Unset{}};
    Kernels().multiply(m_m, right.m_m, product.m_m);
    return product;
}

QelMatrix34 QelMatrix34::Inverse() const noexcept
{
    const Double3 r0 = Row(*this, 0), r1 = Row(*this, 1), r2 = Row(*this, 2);
    // The columns of the inverse are the cross products of pairs of rows over the
    // determinant: row i dotted with column j is then 1 for i = j and 0 otherwise.
    const Double3 c0 = Cross(r1, r2), c1 = Cross(r2, r0), c2 = Cross(r0, r1);
    const double determinant = Dot(r0, c0);
    const double bound = Length(r0) * Length(r1) * Length(r2);
    // Negated so that NaN and infinite elements count as singular too.
    if (!(std::abs(determinant) > kSingularRatio * bound))
        return Zero();

    const Double3 t{Elem(0, 3), Elem(1, 3), Elem(2, 3)};
    const Double3 rows[3] = {{c0.x / determinant, c1.x / determinant, c2.x / determinant},
                             {c0.y / determinant, c1.y / determinant, c2.y / determinant},
                             {c0.z / determinant, c1.z / determinant, c2.z / determinant}};
    QelMatrix34 inverse;
    for (int r = 0; r < kRows; ++r)
        SetRow(inverse, r, rows[r], 0.0 - Dot(rows[r], t));
    return inverse;
}

QelMatrix34 QelMatrix34::NormalTransformation() const
{
    QelMatrix34 linear = *this;
    for (int r = 0; r < kRows; ++r)
        linear.SetElem(r, 3, 0.0f);
    const QelMatrix34 inverse = linear.Inverse();
    QEL_ASSERT(!inverse.IsZero(), "QelMatrix34::NormalTransformation: singular matrix detected");

    QelMatrix34 normal = Zero();
    for (int r = 0; r < kRows; ++r)
        for (int c = 0; c < kRows; ++c)
            normal.SetElem(r, c, inverse.Elem(c, r));
    return normal;
}

bool QelMatrix34::IsZero() const noexcept
{
    return std::all_of(m_m, m_m + kCount, [](float value) { return value == 0.0f; });
}

float QelMatrix34::Norm() const noexcept
{
    float norm = 0.0f;
    for (int r = 0; r < kRows; ++r)
        for (int c = 0; c < kRows; ++c)
            norm = std::max(norm, std::abs(Elem(r, c)));
    return norm;
}

double QelMatrix34::Determinant() const noexcept
{
    return Dot(Row(*this, 0), Cross(Row(*this, 1), Row(*this, 2)));
}
