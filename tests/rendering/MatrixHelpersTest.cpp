#include "MatrixHelpers.h"

#include "ax/primitives/Matrix44.h"

#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

namespace {

using Ax::Primitives::Matrix44;
using Ax::Rendering::MatrixHelpers;

TEST(MatrixHelpersTest, ConvertMatrix44KeepsTheAffineRowsAsFloatsAndDropsTheLast)
{
    Matrix44 host;
    for (int row = 0; row < 4; ++row)
        for (int column = 0; column < 4; ++column)
            host(row, column) = (4 * row + column) + 1.0 / 3.0;
    const QelMatrix34 m = MatrixHelpers::ConvertMatrix44(host);
    for (int row = 0; row < 3; ++row)
        for (int column = 0; column < 4; ++column)
            EXPECT_EQ(m.Elem(row, column), static_cast<float>(host(row, column))) << row << ", " << column;

    // A projective last row changes nothing.
    host(3, 0) = 5.0;
    host(3, 3) = -2.0;
    EXPECT_EQ(MatrixHelpers::ConvertMatrix44(host), m);
}

}  // namespace
