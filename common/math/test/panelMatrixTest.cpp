#include <vosk/common/math/blas.hpp>
#include <vosk/common/math/panelMatrix.hpp>
#include <vosk/test/onEachInstructionSet.hpp>
#include <vosk/test/support.hpp>

#include <random>

namespace {

using vosk::common::math::PanelMatrix;
using vosk::test::OnEachInstructionSet;
using Vector = std::vector<float>;

Vector Random(std::size_t count) {
    static std::mt19937 engine{20261123};  // NOLINT(cert-msc51-cpp): the same cases in every run
    std::normal_distribution<float> normal;
    Vector values(count);
    for (float& value : values) value = normal(engine);
    return values;
}

using Panels = OnEachInstructionSet;
INSTANTIATE_TEST_SUITE_P(Targets, Panels, OnEachInstructionSet::All(), OnEachInstructionSet::Name);

TEST_P(Panels, BothProductsKeepTheErrorBoundAndAgreeWithBlas) {
    for (const auto& [rows, columns] :
         {std::pair{1UL, 1UL}, {63, 255}, {64, 256}, {65, 257}, {5352, 52}, {5352, 600}, {130, 4866}}) {
        const Vector matrix = Random(rows * columns);
        const std::array<Vector, 2> vectors{Random(columns), Random(columns)};
        std::array<Vector, 2> products{Vector(rows, NAN), Vector(rows, NAN)};
        PanelMatrix{matrix, rows, columns}.Multiply(vectors[0], vectors[1], products[0], products[1]);
        const double bound = std::ldexp(258.0 + static_cast<double>(columns) / 256.0, -24);
        for (std::size_t i = 0; i < 2; ++i) {
            Vector by_blas(rows);
            vosk::common::math::cblas_MultiplyMatrixByVector(CblasNoTrans, 1.0F, matrix, vectors[i], 0.0F,
                                                             by_blas, CblasRowMajor);
            for (std::size_t row = 0; row < rows; ++row) {
                double exact = 0.0;
                double magnitude = 0.0;
                for (std::size_t column = 0; column < columns; ++column) {
                    const double term = double{matrix[row * columns + column]} * double{vectors[i][column]};
                    exact += term;
                    magnitude += std::abs(term);
                }
                ASSERT_NEAR(products[i][row], exact, bound * magnitude)
                    << rows << " x " << columns << ", " << row;
                ASSERT_NEAR(products[i][row], by_blas[row], 2e-6 * magnitude) << rows << " x " << columns;
            }
        }
    }
}

// Neither a 0 in the matrix nor a neighbouring row hides what is not finite.
TEST_P(Panels, AnInfiniteElementShowsInEveryRowOfItsProductAlone) {
    Vector matrix(std::size_t{70} * 3);
    matrix[0] = 1.0F;
    const Vector finite{1.0F, 2.0F, 3.0F};
    Vector infinite = finite;
    infinite[2] = INFINITY;
    Vector a(70);
    Vector b(70);
    PanelMatrix{matrix, 70, 3}.Multiply(finite, infinite, a, b);
    for (std::size_t row = 0; row < 70; ++row) {
        EXPECT_EQ(a[row], row == 0 ? 1.0F : 0.0F);
        EXPECT_TRUE(std::isnan(b[row]));
    }
}

}  // namespace
