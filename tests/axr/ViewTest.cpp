#include "View.h"

#include <gtest/gtest.h>

namespace {

using Ax::Primitives::Matrix44;
using Axr::Vec3;

// m p, expected to lie within 1e-9 of `expected`.
void ExpectMaps(const Matrix44& m, const Vec3& p, const Vec3& expected)
{
    for (int i = 0; i < 3; ++i)
        EXPECT_NEAR(m(i, 0) * p[0] + m(i, 1) * p[1] + m(i, 2) * p[2] + m(i, 3), expected[i], 1e-9) << "component " << i;
}

TEST(ViewTest, VolumeToViewPutsThePlaneOnCanvasZeroWithTheCentreInTheMiddle)
{
    const Vec3 x{1, 0, 0}, z{0, 0, 1};
    const Axr::ViewPlane plane{{40, 50, 60.5}, Axr::Rotate(x, z, 30), Axr::Rotate({0, 0, -1}, x, 10), 0.25};
    const Matrix44 volumeToView = Axr::InvertAffine(Axr::CanvasToVolume(plane, Ax::Primitives::Size(512, 300)));
    // One pixel across is pixelSpacing voxels along `across`; the normal is one voxel per unit.
    const Vec3 normal = Axr::Cross(plane.across, plane.down);
    Vec3 step, deeper;
    for (int i = 0; i < 3; ++i) {
        step[i] = plane.centre[i] + 0.25 * plane.across[i] - 0.25 * plane.down[i];
        deeper[i] = plane.centre[i] + 3 * normal[i];
    }
    ExpectMaps(volumeToView, plane.centre, {255.5, 149.5, 0});
    ExpectMaps(volumeToView, step, {256.5, 148.5, 0});
    ExpectMaps(volumeToView, deeper, {255.5, 149.5, 3});

    // A skewed, scaled matrix, which a transpose would not undo.
    Matrix44 m;
    const double values[3][4] = {{2, 0.5, 0, 7}, {0.1, 3, -1, -2}, {0, 0.25, 0.5, 11}};
    for (int r = 0; r < 12; ++r)
        m(r / 4, r % 4) = values[r / 4][r % 4];
    const Matrix44 inverse = Axr::InvertAffine(m);
    ExpectMaps(inverse, {7, -2, 11}, {0, 0, 0});
    ExpectMaps(inverse, {2 - 1 + 7, 0.1 - 6 - 3 - 2, 0 - 0.5 + 1.5 + 11}, {1, -2, 3});
}

}  // namespace
