#include "base/QelMatrix34.h"

#include "support/BaseTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <numbers>
#include <random>

namespace {

float MaxDifference(const QelMatrix34& a, const QelMatrix34& b)
{
    float difference = 0.0f;
    for (int k = 0; k < QelMatrix34::kCount; ++k)
        difference = std::max(difference, std::abs(a.Data()[k] - b.Data()[k]));
    return difference;
}

QelVector3 Point(const QelMatrix34& m, const QelVector3& p) { QelVector3 out; m.TransformPoint(p, out); return out; }
QelVector3 Vector(const QelMatrix34& m, const QelVector3& v) { QelVector3 out; m.TransformVector(v, out); return out; }

// A rotation, an uneven scale, a shear and a translation: well conditioned, and
// with every element in play.
QelMatrix34 RandomRegularMatrix(std::mt19937& random)
{
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    std::uniform_real_distribution<double> angle(-std::numbers::pi, std::numbers::pi);
    return QelMatrix34::Translate(100 * unit(random), 100 * unit(random), 100 * unit(random))
        .Multiply(QelMatrix34::RotAx(0, angle(random)))
        .Multiply(QelMatrix34::RotAx(1, angle(random)))
        .Multiply(QelMatrix34::Scale(0.5f + unit(random) * 0.25f, 2.0f + unit(random), 8.0f + unit(random)))
        .Multiply(QelMatrix34::Shear(2, unit(random), unit(random), 0.0f));
}

// Sine 2 and cosine 3 keep the products exact, and (1, 1, 1) shows the sign and
// the place of every term.
TEST(QelMatrix34Test, FactoriesMoveAPointWhereTheirDefinitionsSayAndProductsApplyTheRightFactorFirst)
{
    const std::pair<QelMatrix34, QelVector3> cases[] = {
        // Right-handed: y turns towards z, z towards x, x towards y.
        {QelMatrix34::RotAxSinCos(0, 2, 3), {1, 1, 5}},
        {QelMatrix34::RotAxSinCos(1, 2, 3), {5, 1, 1}},
        {QelMatrix34::RotAxSinCos(2, 2, 3), {1, 5, 1}},
        // The terms go into the column of the axis; the axis's own term is ignored.
        {QelMatrix34::Shear(0, 2, 3, 5), {1, 4, 6}},
        {QelMatrix34::Shear(1, 2, 3, 5), {3, 1, 6}},
        {QelMatrix34::Shear(2, 2, 3, 5), {3, 4, 1}},
    };
    for (const auto& [m, out] : cases)
        EXPECT_EQ(Point(m, {1, 1, 1}), out) << testing::PrintToString(m);
    // RotAx takes radians.
    EXPECT_LE(MaxDifference(QelMatrix34::RotAx(2, std::numbers::pi / 2), QelMatrix34::RotAxSinCos(2, 1, 0)), 1e-7f);

    // Small integers keep every sum of products exact, so both ways must agree exactly.
    std::mt19937 random(7);
    std::uniform_int_distribution<int> value(-8, 8);
    const auto randomMatrix = [&] {
        std::array<float, QelMatrix34::kCount> elements;
        std::ranges::generate(elements, [&] { return static_cast<float>(value(random)); });
        return QelMatrix34(elements);
    };
    for (int i = 0; i < 200; ++i) {
        const QelMatrix34 a = randomMatrix(), b = randomMatrix();
        const QelVector3 p(static_cast<float>(i % 5) - 2, 3, static_cast<float>(i % 7) - 4);
        EXPECT_EQ(Point(a * b, p), Point(a, Point(b, p))) << i;
        EXPECT_EQ(Vector(a * b, p), Vector(a, Vector(b, p))) << i;
    }
}

TEST(QelMatrix34Test, MisuseIsReportedWithItsOwnText)
{
    const QelMatrix34 zeroRow({1, 2, 3, 4, 0, 0, 0, 5, 7, 8, 9, 10});  // its translation doesn't rescue it
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[] { (void)QelMatrix34::RotAx(3, 0.5); },
         "QelMatrix34::RotAxSinCos: Axis out of range.\nRequired: [0..2]. Given: 3.\n"},
        {[&] { (void)zeroRow.NormalTransformation(); }, "QelMatrix34::NormalTransformation: singular matrix detected"},
        // The vectors as "(x, y, z)" with %g components.
        {[] { (void)QelMatrix34::FromAxes({1, 0, 0}, {0, -2.5f, 0}, {1, 1, 0}); },
         "Matrix34: Illegal linear combination of coplanar vectors: (1, 0, 0), (0, -2.5, 0) and (1, 1, 0)"},
    };
    for (const auto& [call, text] : cases)
        EXPECT_EQ(CatchReport<QelThrowBugHandler::QelBacktraceException>(call).text, text);
    // Only triple products within 2^-52 of zero are coplanar.
    for (const float z : {1e-17f, 1e-15f}) {
        const auto call = [z] { (void)QelMatrix34::FromAxes({1, 0, 0}, {0, 1, 0}, {0, 0, z}); };
        EXPECT_EQ(CatchReport<QelThrowBugHandler::ErrorException>(call).text.empty(), z > 1e-16f) << z;
    }
}

// Normals turn by the inverse transposed, so both come from the same inversion.
TEST(QelMatrix34Test, InverseUndoesTheTransformAndNormalsStayPerpendicular)
{
    std::mt19937 random(11);
    const QelVector3 tangent(1, 2, -1), normal(1, 0, 1);  // perpendicular
    for (int i = 0; i < 50; ++i) {
        const QelMatrix34 m = RandomRegularMatrix(random);
        const QelMatrix34 inverse = m.Inverse(), normals = m.NormalTransformation();
        SCOPED_TRACE(testing::Message() << "case " << i);
        // Translations of a few hundred leave rounding of about 1e-4 in column 3.
        EXPECT_LE(MaxDifference(m.Multiply(inverse), QelMatrix34::Identity()), 1e-3f);
        EXPECT_EQ(QelVector3(normals.Elem(0, 3), normals.Elem(1, 3), normals.Elem(2, 3)), QelVector3(0, 0, 0));
        const QelVector3 n = Vector(normals, normal), t = Vector(m, tangent);
        EXPECT_NEAR(n.Dot(t) / std::sqrt(n.Dot(n) * t.Dot(t)), 0.0f, 1e-5f);
    }
}

TEST(QelMatrix34Test, SingularMatricesAndOnlyThoseInvertToZeroAndTheDeterminantSkipsTheTranslation)
{
    // Exactly dependent rows whose double determinant is rounding noise, not 0.
    const QelMatrix34 dependent({0.1f, 0.2f, 0.3f, 0, 0.7f, 1.1f, -1.9f, 0, 0.2f, 0.4f, 0.6f, 0});
    EXPECT_NE(dependent.Determinant(), 0.0);
    EXPECT_TRUE(dependent.Inverse().IsZero());
    // So are a NaN, which no comparison catches, and with it the zero matrix (0 against a bound of 0).
    EXPECT_TRUE(QelMatrix34::Scale(1, std::numeric_limits<float>::quiet_NaN(), 1).Inverse().IsZero());
    // Singularity is relative to the size of the rows, not to an absolute limit.
    EXPECT_NEAR(QelMatrix34::Scale(1e-6f, 1e-6f, 1e-6f).Inverse().Elem(0, 0), 1e6f, 1.0f);

    // Norm and determinant skip the translation; the determinant is worked in doubles,
    // where in floats 3 x (1/3) rounds to exactly 1.
    EXPECT_EQ(QelMatrix34::Translate(100, -200, 300).Norm(), 1.0f);
    const float third = 1.0f / 3.0f;
    const QelMatrix34 moved = QelMatrix34::Translate(4, 5, 6).Multiply(QelMatrix34::Scale(3, third, 1));
    EXPECT_EQ(moved.Determinant(), 3.0 * static_cast<double>(third));
}

// Levels rise from scalar without gaps. An inner limit never raises an outer one,
// and each restores the cap it found; what the processor can run is still reported.
TEST(QelIsaTest, LimitsCapTheBestIsaForTheirScopeOnly)
{
    constexpr QelIsa kAllIsas[] = {QelIsa::Scalar, QelIsa::Sse2, QelIsa::Avx2, QelIsa::Avx512};
    const std::vector<QelIsa> isas = QelSupportedIsas();
    EXPECT_EQ(isas, std::vector<QelIsa>(std::begin(kAllIsas), std::begin(kAllIsas) + isas.size()));
    EXPECT_EQ(QelBestIsa(), isas.back());
    {
        const QelIsaLimit outer(QelIsa::Sse2);
        const QelIsaLimit inner(QelIsa::Avx2);
        EXPECT_EQ(QelBestIsa(), std::min(isas.back(), QelIsa::Sse2));
        {
            const QelIsaLimit innermost(QelIsa::Scalar);
            EXPECT_EQ(QelBestIsa(), QelIsa::Scalar);
            EXPECT_EQ(QelSupportedIsas(), isas);
        }
        EXPECT_EQ(QelBestIsa(), std::min(isas.back(), QelIsa::Sse2));
    }
    EXPECT_EQ(QelBestIsa(), isas.back());
}

// Signed zeros, ones and denormals mixed in: -0 products and underflow are where
// bodies that merely agree in value differ in bits. NaN payloads need not survive
// operand order, so NaNs stay out.
template <std::size_t kSize>
void FillRandomly(float (&values)[kSize], std::mt19937& random)
{
    static constexpr float kSpecial[] = {0.0f, -0.0f, 1.0f, -1.0f, 1e-40f, -3e-39f, 0.5f, 65536.0f};
    std::uniform_int_distribution<int> pick(0, 15);
    std::uniform_real_distribution<float> ordinary(-1000.0f, 1000.0f);
    for (float& value : values) {
        const int choice = pick(random);
        value = choice < 8 ? kSpecial[choice] : ordinary(random);
    }
}

template <std::size_t kSize>
using Bits = std::array<std::uint32_t, kSize>;

class QelMatrix34KernelsTest : public testing::TestWithParam<QelIsa> {
protected:
    const QelMatrix34Kernels& m_scalar = QelMatrix34KernelsFor(QelIsa::Scalar);
    const QelMatrix34Kernels& m_tested = QelMatrix34KernelsFor(GetParam());
};

TEST_P(QelMatrix34KernelsTest, EveryBodyMatchesScalarBitForBitAndReadsItsInputBeforeWriting)
{
    std::mt19937 random(2024);
    for (int i = 0; i < 2000; ++i) {
        float a[QelMatrix34::kCount], b[QelMatrix34::kCount], in[3];
        FillRandomly(a, random);
        FillRandomly(b, random);
        FillRandomly(in, random);
        float expected[QelMatrix34::kCount], actual[QelMatrix34::kCount], expected3[3], actual3[3];
        m_scalar.multiply(a, b, expected);
        m_tested.multiply(a, b, actual);
        ASSERT_EQ(std::bit_cast<Bits<12>>(actual), std::bit_cast<Bits<12>>(expected)) << "multiply, case " << i;
        for (const auto transform : {&QelMatrix34Kernels::transformPoint, &QelMatrix34Kernels::transformVector}) {
            (m_scalar.*transform)(a, in, expected3);
            (m_tested.*transform)(a, in, actual3);
            ASSERT_EQ(std::bit_cast<Bits<3>>(actual3), std::bit_cast<Bits<3>>(expected3)) << "transform, case " << i;
        }
    }
    // The input is read before the output is written.
    const float m[QelMatrix34::kCount] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    float v[3] = {1, -1, 2};
    m_tested.transformPoint(m, v, v);
    EXPECT_EQ(QelVector3(v[0], v[1], v[2]), QelVector3(9, 21, 33));
    m_tested.transformVector(m, v, v);
    EXPECT_EQ(QelVector3(v[0], v[1], v[2]), QelVector3(150, 402, 654));
}

INSTANTIATE_TEST_SUITE_P(AllIsas, QelMatrix34KernelsTest, testing::ValuesIn(QelSupportedIsas()), IsaName);

}  // namespace
