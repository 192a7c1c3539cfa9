#include <vosk/common/math/blas.hpp>
#include <vosk/common/math/finite.hpp>

#include <vosk/test/support.hpp>

namespace {

using vosk::common::math::cblas_AddVectors;
using vosk::common::math::cblas_MultiplyMatrixByVector;
using vosk::common::math::ScaleVector;

const std::vector<float> A{1, 2, 3, 4, 5, 6};  // row-major: 2 x 3; column-major: 3 x 2
constexpr float NAN_F = std::numeric_limits<float>::quiet_NaN();

std::vector<float> Multiply(CBLAS_TRANSPOSE trans, CBLAS_ORDER order, const std::vector<float>& x,
                            std::vector<float> y, float alpha = 1.0F, float beta = 0.0F) {
    cblas_MultiplyMatrixByVector(trans, alpha, A, x, beta, y, order);
    return y;
}

TEST(MultiplyMatrixByVector, ReadsTheMatrixInItsOrder) {
    using Vector = std::vector<float>;
    EXPECT_EQ(Multiply(CblasNoTrans, CblasRowMajor, {1, 10, 100}, {0, 0}), (Vector{321, 654}));
    EXPECT_EQ(Multiply(CblasTrans, CblasRowMajor, {1, 10}, {0, 0, 0}), (Vector{41, 52, 63}));
    EXPECT_EQ(Multiply(CblasNoTrans, CblasColMajor, {1, 10}, {0, 0, 0}), (Vector{41, 52, 63}));
    EXPECT_EQ(Multiply(CblasTrans, CblasColMajor, {1, 10, 100}, {0, 0}), (Vector{321, 654}));
    EXPECT_EQ(Multiply(CblasNoTrans, CblasRowMajor, {1, 1, 1}, {10, 20}, 2.0F, 3.0F), (Vector{42, 90}));
}

TEST(MultiplyMatrixByVector, ForgetsTheFormerResult) {
    EXPECT_EQ(Multiply(CblasNoTrans, CblasRowMajor, {1, 1, 1}, {NAN_F, NAN_F}), (std::vector<float>{6, 15}));
}

TEST(MultiplyMatrixByVector, GivesZeroesForAnEmptyVector) {
    std::vector<float> y{NAN_F, 2};
    cblas_MultiplyMatrixByVector(CblasNoTrans, 1.0F, {}, {}, 0.0F, y);
    EXPECT_EQ(y, (std::vector<float>{0, 0}));
}

TEST(AddVectors, AddsTheScaledVector) {
    const std::vector<float> x{1, 2, 3};
    std::vector<float> y{10, 20, 30};
    cblas_AddVectors(-2.0F, x, y);
    EXPECT_EQ(y, (std::vector<float>{8, 16, 24}));
}

TEST(ScaleVector, ZeroClearsWhatIsNoNumberToo) {
    std::vector<float> values{NAN_F, std::numeric_limits<float>::infinity(), 3};
    ScaleVector(0.0F, values);
    EXPECT_EQ(values, (std::vector<float>{0, 0, 0}));
    values = {2, -4};
    ScaleVector(0.5F, values);
    EXPECT_EQ(values, (std::vector<float>{1, -2}));
}

TEST(BlasDeathTest, StopsOnSizesThatDoNotFit) {
    std::vector<float> two(2);
    std::vector<float> three(3);
    EXPECT_DEATH(cblas_AddVectors(1.0F, two, three), "x\\.size\\(\\) == y\\.size\\(\\)");
    EXPECT_DEATH(cblas_MultiplyMatrixByVector(CblasNoTrans, 1.0F, A, two, 0.0F, two),
                 "A\\.size\\(\\) == \\(x\\.size\\(\\) \\* y\\.size\\(\\)\\)");
}

TEST(AllFinite, FindsTheOneValueThatIsNoNumberAnywhere) {
    std::vector<float> values(37, -std::numeric_limits<float>::max());
    EXPECT_TRUE(vosk::common::math::AllFinite(values));
    EXPECT_TRUE(vosk::common::math::AllFinite({}));
    for (std::size_t i = 0; i < values.size(); ++i) {
        for (const float special :
             {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
              -std::numeric_limits<float>::infinity()}) {
            auto spoilt = values;
            spoilt[i] = special;
            EXPECT_FALSE(vosk::common::math::AllFinite(spoilt)) << i;
        }
    }
}

}  // namespace
