#pragma once

#include "ax/primitives/Matrix44.h"
#include "base/QelMatrix34.h"

namespace Ax::Rendering {

/// Matrices between the host's doubles and the native floats.
class MatrixHelpers {
public:
    MatrixHelpers() = delete;

    /// Rows 0 to 2 of `matrix`, each element narrowed to float. Row 3 is dropped
    /// unread: the native matrix is affine, so a projective row has no place in it.
    [[nodiscard]] static QelMatrix34 ConvertMatrix44(const Ax::Primitives::Matrix44& matrix) noexcept;
};

}  // namespace Ax::Rendering
