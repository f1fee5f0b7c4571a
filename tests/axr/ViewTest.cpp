#include "View.h"

#include <gtest/gtest.h>

namespace {

using Ax::Primitives::Matrix44;
using Ax::Primitives::Size;
using Axr::Vec3;

Vec3 Apply(const Matrix44& m, const Vec3& p)
{
    Vec3 r;
    for (int i = 0; i < 3; ++i)
        r[i] = m(i, 0) * p[0] + m(i, 1) * p[1] + m(i, 2) * p[2] + m(i, 3);
    return r;
}

void ExpectNear(const Vec3& actual, const Vec3& expected)
{
    for (int i = 0; i < 3; ++i)
        EXPECT_NEAR(actual[i], expected[i], 1e-9) << "component " << i;
}

TEST(ViewTest, VolumeToViewPutsThePlaneOnCanvasZeroWithTheCentreInTheMiddle)
{
    const Vec3 x{1, 0, 0}, z{0, 0, 1};
    const Axr::ViewPlane plane{{40, 50, 60.5}, Axr::Rotate(x, z, 30), Axr::Rotate({0, 0, -1}, x, 10), 0.25};
    const Size canvas(512, 300);
    const Matrix44 volumeToView = Axr::InvertAffine(Axr::CanvasToVolume(plane, canvas));

    ExpectNear(Apply(volumeToView, plane.centre), {255.5, 149.5, 0});
    // One pixel across is pixelSpacing voxels along `across`; the normal is one voxel per unit.
    Vec3 step;
    for (int i = 0; i < 3; ++i)
        step[i] = plane.centre[i] + 0.25 * plane.across[i] - 0.25 * plane.down[i];
    ExpectNear(Apply(volumeToView, step), {256.5, 148.5, 0});
    const Vec3 normal = Axr::Cross(plane.across, plane.down);
    for (int i = 0; i < 3; ++i)
        step[i] = plane.centre[i] + 3 * normal[i];
    ExpectNear(Apply(volumeToView, step), {255.5, 149.5, 3});
}

TEST(ViewTest, InverseOfASkewedScaledMatrixUndoesIt)
{
    Matrix44 m;
    const double values[3][4] = {{2, 0.5, 0, 7}, {0.1, 3, -1, -2}, {0, 0.25, 0.5, 11}};
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c)
            m(r, c) = values[r][c];
    const Matrix44 inverse = Axr::InvertAffine(m);
    for (const Vec3& p : {Vec3{0, 0, 0}, Vec3{1, -2, 3}, Vec3{100, 50, -25}})
        ExpectNear(Apply(inverse, Apply(m, p)), p);
}

}  // namespace
