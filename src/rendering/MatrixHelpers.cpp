#include "MatrixHelpers.h"

namespace Ax::Rendering {

QelMatrix34 MatrixHelpers::ConvertMatrix44(const Ax::Primitives::Matrix44& matrix) noexcept
{
    QelMatrix34 result = QelMatrix34::Identity();
    for (int row = 0; row < QelMatrix34::kRows; ++row)
        for (int column = 0; column < QelMatrix34::kColumns; ++column)
            result.SetElem(row, column, static_cast<float>(matrix(row, column)));
    return result;
}

}  // namespace Ax::Rendering
