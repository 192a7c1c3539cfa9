#include <vosk/common/math/blas.hpp>
#include <vosk/common/math/finite.hpp>

#include <vosk/test/support.hpp>

namespace {

using namespace vosk::common::math;
using Vector = std::vector<float>;

const Vector A{1, 2, 3, 4, 5, 6};  // row-major: 2 x 3; column-major: 3 x 2
constexpr float NAN_F = std::numeric_limits<float>::quiet_NaN();

Vector Multiply(CBLAS_TRANSPOSE trans, CBLAS_ORDER order, const Vector& x, Vector y, float alpha = 1.0F,
                float beta = 0.0F) {
    cblas_MultiplyMatrixByVector(trans, alpha, A, x, beta, y, order);
    return y;
}

TEST(MultiplyMatrixByVector, ReadsTheMatrixInItsOrderAndForgetsTheFormerResult) {
    EXPECT_EQ(Multiply(CblasNoTrans, CblasRowMajor, {1, 10, 100}, {NAN_F, NAN_F}), (Vector{321, 654}));
    EXPECT_EQ(Multiply(CblasTrans, CblasRowMajor, {1, 10}, {0, 0, 0}), (Vector{41, 52, 63}));
    EXPECT_EQ(Multiply(CblasNoTrans, CblasColMajor, {1, 10}, {0, 0, 0}), (Vector{41, 52, 63}));
    EXPECT_EQ(Multiply(CblasTrans, CblasColMajor, {1, 10, 100}, {0, 0}), (Vector{321, 654}));
    EXPECT_EQ(Multiply(CblasNoTrans, CblasRowMajor, {1, 1, 1}, {10, 20}, 2.0F, 3.0F), (Vector{42, 90}));
    Vector y{NAN_F, 2};
    cblas_MultiplyMatrixByVector(CblasNoTrans, 1.0F, {}, {}, 0.0F, y);
    EXPECT_EQ(y, (Vector{0, 0}));
}

TEST(Vectors, AreAddedAndScaledAndZeroClearsEvenNaN) {
    Vector y{10, 20, 30};
    cblas_AddVectors(-2.0F, Vector{1, 2, 3}, y);
    EXPECT_EQ(y, (Vector{8, 16, 24}));
    ScaleVector(-0.5F, y);
    EXPECT_EQ(y, (Vector{-4, -8, -12}));
    y = {NAN_F, INFINITY, 3};
    ScaleVector(0.0F, y);
    EXPECT_EQ(y, (Vector{0, 0, 0}));
}

TEST(BlasDeathTest, StopsOnSizesThatDoNotFit) {
    Vector two(2);
    Vector three(3);
    EXPECT_DEATH(cblas_AddVectors(1.0F, two, three), "x.size.*y.size");
    EXPECT_DEATH(cblas_MultiplyMatrixByVector(CblasNoTrans, 1.0F, A, two, 0.0F, two), "A.size");
}

TEST(AllFinite, FindsTheOneValueThatIsNotFiniteAnywhere) {
    Vector values(37, -std::numeric_limits<float>::max());
    EXPECT_TRUE(AllFinite(values));
    EXPECT_TRUE(AllFinite({}));
    for (float& value : values) {
        for (const float special : {NAN_F, INFINITY, -INFINITY}) {
            const float before = std::exchange(value, special);
            EXPECT_FALSE(AllFinite(values)) << &value - values.data();
            value = before;
        }
    }
}

}  // namespace
