#include "View.h"

#include <cmath>
#include <numbers>

namespace Axr {

using Ax::Primitives::Matrix44;

Vec3 Cross(const Vec3& a, const Vec3& b) noexcept
{
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

double Dot(const Vec3& a, const Vec3& b) noexcept { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

Vec3 Normalized(const Vec3& v) noexcept
{
    const double length = std::sqrt(Dot(v, v));
    return length == 0 ? v : Vec3{v[0] / length, v[1] / length, v[2] / length};
}

Vec3 Rotate(const Vec3& v, const Vec3& axis, double degrees) noexcept
{
    const double angle = degrees * std::numbers::pi / 180.0;
    const double c = std::cos(angle), s = std::sin(angle);
    const Vec3 k = Cross(axis, v);
    const double dot = Dot(axis, v);
    Vec3 r;
    for (int i = 0; i < 3; ++i)
        r[i] = v[i] * c + k[i] * s + axis[i] * dot * (1 - c);
    return r;
}

Matrix44 CanvasToVolume(const ViewPlane& plane, Ax::Primitives::Size canvas) noexcept
{
    const Vec3 normal = Cross(plane.across, plane.down);
    const double cx = (canvas.Width - 1) / 2.0, cy = (canvas.Height - 1) / 2.0;
    Matrix44 m;
    for (int i = 0; i < 3; ++i) {
        const double toVolume = 1.0 / plane.voxelSize[i];
        m(i, 0) = plane.across[i] * plane.pixelSpacing * toVolume;
        m(i, 1) = plane.down[i] * plane.pixelSpacing * toVolume;
        m(i, 2) = normal[i] * plane.depthUnit * toVolume;
        m(i, 3) = plane.centre[i] * toVolume - cx * m(i, 0) - cy * m(i, 1);
    }
    return m;
}

Matrix44 VolumeToView(const ViewPlane& plane, Ax::Primitives::Size canvas) noexcept
{
    return InvertAffine(CanvasToVolume(plane, canvas));
}

Matrix44 InvertAffine(const Matrix44& m) noexcept
{
    // The 3 x 3 part by cofactors; the translation follows as -inverse * t.
    const auto a = [&m](int r, int c) { return m(r, c); };
    const double c00 = a(1, 1) * a(2, 2) - a(1, 2) * a(2, 1);
    const double c01 = a(1, 2) * a(2, 0) - a(1, 0) * a(2, 2);
    const double c02 = a(1, 0) * a(2, 1) - a(1, 1) * a(2, 0);
    const double determinant = a(0, 0) * c00 + a(0, 1) * c01 + a(0, 2) * c02;
    const double f = 1.0 / determinant;
    Matrix44 r;
    r(0, 0) = c00 * f;
    r(0, 1) = (a(0, 2) * a(2, 1) - a(0, 1) * a(2, 2)) * f;
    r(0, 2) = (a(0, 1) * a(1, 2) - a(0, 2) * a(1, 1)) * f;
    r(1, 0) = c01 * f;
    r(1, 1) = (a(0, 0) * a(2, 2) - a(0, 2) * a(2, 0)) * f;
    r(1, 2) = (a(0, 2) * a(1, 0) - a(0, 0) * a(1, 2)) * f;
    r(2, 0) = c02 * f;
    r(2, 1) = (a(0, 1) * a(2, 0) - a(0, 0) * a(2, 1)) * f;
    r(2, 2) = (a(0, 0) * a(1, 1) - a(0, 1) * a(1, 0)) * f;
    for (int i = 0; i < 3; ++i)
        r(i, 3) = -(r(i, 0) * a(0, 3) + r(i, 1) * a(1, 3) + r(i, 2) * a(2, 3));
    return r;
}

}  // namespace Axr
