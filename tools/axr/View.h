#pragma once

#include "ax/primitives/Matrix44.h"
#include "ax/primitives/Size.h"

#include <array>

namespace Axr {

using Vec3 = std::array<double, 3>;

/// A plane through the volume as the canvas shows it, in a physical space (usually
/// millimetres) whose origin is the volume's first voxel and whose axes run along
/// its columns, rows and slices: the point at the canvas centre, the unit directions
/// of one pixel to the right and one row down, and the spacing of canvas pixels. The
/// view's z runs along across x down, `depthUnit` per unit, so that slab spacings
/// count in that unit. `voxelSize` is the length of one volume unit (pixel column,
/// pixel row, stack z unit) along each axis.
struct ViewPlane {
    Vec3 centre{};
    Vec3 across{1, 0, 0};
    Vec3 down{0, 1, 0};
    double pixelSpacing = 1;
    Vec3 voxelSize{1, 1, 1};
    double depthUnit = 1;
};

/// Canvas (x, y, z) to volume (column, row, stack z), as a matrix on column vectors;
/// canvas pixel ((width - 1) / 2, (height - 1) / 2, 0) is the plane's centre.
[[nodiscard]] Ax::Primitives::Matrix44 CanvasToVolume(const ViewPlane& plane, Ax::Primitives::Size canvas) noexcept;

/// The inverse of CanvasToVolume: what the renderer takes.
[[nodiscard]] Ax::Primitives::Matrix44 VolumeToView(const ViewPlane& plane, Ax::Primitives::Size canvas) noexcept;

/// The inverse of an affine matrix (row 3 is 0 0 0 1). Caller ensures the 3 x 3 part
/// is invertible.
[[nodiscard]] Ax::Primitives::Matrix44 InvertAffine(const Ax::Primitives::Matrix44& matrix) noexcept;

/// `v` turned by `degrees` about the unit `axis`, right-handed.
[[nodiscard]] Vec3 Rotate(const Vec3& v, const Vec3& axis, double degrees) noexcept;

[[nodiscard]] Vec3 Cross(const Vec3& a, const Vec3& b) noexcept;
[[nodiscard]] double Dot(const Vec3& a, const Vec3& b) noexcept;
/// `v` scaled to length 1; `v` itself when its length is 0.
[[nodiscard]] Vec3 Normalized(const Vec3& v) noexcept;

}  // namespace Axr
