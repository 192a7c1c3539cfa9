// The first state of the filter. Its recursion is held against its model with those of the other resamplers.

#include "resamplerChains.hpp"

#include <vosk/test/logCapture.hpp>

#include <random>

namespace vosk::signal_processing::test {
namespace {

using vosk::test::LogCapture;

float OutputFor(Resampler<Sample>& filter, float input) {
    filter.AddSample({At(1), 1, {input, 2 * input}});
    return filter.GetSample()->tt.tip;
}

// Also where its input is no state at rest.
TEST(StateSpaceFilter, FirstOrderStartsAtItsInput) {
    EXPECT_EQ(OutputFor(*MakeFilter<1>({{{1.0}}, {3.0}, {1.0}, 0.0}, true), 8.0F), 8.0F);
}

TEST(StateSpaceFilter, SecondOrderStartsAtRestUnderItsFirstInput) {
    const auto filter = MakeFilter<2>(SECOND_ORDER, true);
    const float first = OutputFor(*filter, 4.0F);
    // (I - A) x = B u by hand: x = (0.3 * 0.9 + 0.5 * 0.2, 0.9 * 0.3 + 0.2 * 0.2) / 0.27 * 4.
    EXPECT_FLOAT_EQ(first, static_cast<float>((0.5 * 0.37 + 2.0 * 0.31) / 0.27 * 4.0 + 0.25 * 4.0));
    EXPECT_EQ(OutputFor(*MakeFilter<2>(SECOND_ORDER, false), 4.0F), 1.0F);
    // Poles so slow that their product alone would pass for rounding.
    constexpr double SLOW = 0x1p-26;
    const Filter slow{{{1.0 - SLOW, 0.0}, {0.0, 1.0 - SLOW}}, {SLOW, SLOW}, {1.0, 2.0}, 0.0};
    EXPECT_EQ(OutputFor(*MakeFilter<2>(slow, true), 4.0F), 12.0F);
}

TEST(StateSpaceFilter, SecondOrderWithoutAStateAtRestWarnsAndStartsAtZero) {
    // Integrators, exact and but for rounding; coefficients beyond all measure.
    for (const Filter& shape : {Filter{{{1.0, 0.5}, {0.0, 1.0}}, {1.0, 1.0}, {1.0, 1.0}, 0.5},
                                Filter{{{0.9, 0.1}, {0.1, 0.9}}, {1.0, 1.0}, {1.0, 1.0}, 0.5},
                                Filter{{{1e200, 1.0}, {1.0, 1e200}}, {1.0, 1.0}, {1.0, 1.0}, 0.5}}) {
        const LogCapture log;
        EXPECT_EQ(OutputFor(*MakeFilter<2>(shape, true), 4.0F), 2.0F);
        EXPECT_EQ(log.Count(log4cplus::WARN_LOG_LEVEL, "StateSpaceFilter: no state at rest, starts at 0"), 1);
    }
}

// A step changes the state at rest by rounding alone, also where a pole is close to 1.
TEST(StateSpaceFilter, SecondOrderStateAtRestStaysUnderItsInput) {
    std::mt19937_64 random{7};
    std::uniform_real_distribution<double> any{-2.0, 2.0};
    for (int i = 0; i < 100'000; ++i) {
        const double pole = std::pow(10.0, -7.0 * std::abs(any(random)));  // the distance of one from 1
        const double p = any(random);
        const double q = any(random);
        const double r = any(random);
        // I - A has rows (p, q) and r (p, q), but for `pole`.
        const std::array a{1.0 - p, -q, -r * p, 1.0 - r * q - pole};
        const std::array b{any(random), i % 2 == 0 ? any(random) : 0.0};
        const auto x = detail::StateAtRest(a, b);
        if (!x && std::abs(p * pole) < 1e-13) continue;  // the determinant, which rounding may make 0
        ASSERT_TRUE(x) << i;
        for (std::size_t row = 0; row < 2; ++row) {
            const double* const of_row = &a[2 * row];
            const double next = of_row[0] * (*x)[0] + of_row[1] * (*x)[1] + b[row];
            const double size = (1.0 + std::abs(of_row[0])) * std::abs((*x)[0]) +
                                (1.0 + std::abs(of_row[1])) * std::abs((*x)[1]) + std::abs(b[row]);
            ASSERT_NEAR(next, (*x)[row], 1e-15 * size) << i;
        }
    }
}

}  // namespace
}  // namespace vosk::signal_processing::test
