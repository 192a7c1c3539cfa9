// The filter against its model, and what it starts from.

#include "resamplerModels.hpp"

#include <gtest/gtest.h>

namespace vosk::signal_processing::test {
namespace {

float OutputFor(Resampler<Sample>& filter, float input) {
    filter.AddSample({At(1), 1, {input, 2 * input}});
    return filter.GetSample()->tt.tip;
}

TEST(StateSpaceFilter, FollowsTheRecursionForLongWithAStateForEachValue) {
    for (const Stage& stage : {Stage{"filter1"}, Stage{"filter2"}}) {
        const auto filter = MakeReal(stage);
        const auto model = MakeModel(stage);
        for (unsigned k = 0; k < 300'000; ++k) {
            const auto tip = static_cast<float>(1000 * std::sin(k * 1e-7 * k));
            const auto tilt = static_cast<float>(std::cos(k / 3.0)) + 5e4F;
            filter->AddSample({At(k), k, {tip, tilt}});
            model->Add({At(k), k, {tip, tilt}});
            ASSERT_TRUE(filter->HasSamples());
            const auto output = filter->GetSample();
            ASSERT_EQ(output->tt, model->Get()->tt) << k;
            ASSERT_EQ(output->timestamp, At(k));
            ASSERT_EQ(output->sample_id, k);
        }
        EXPECT_FALSE(filter->HasSamples());
        EXPECT_EQ(filter->GetSample()->tt, model->Get()->tt);  // again, on request
    }
}

TEST(StateSpaceFilter, PassesTheInputThroughWithoutStates) {
    const auto filter = MakeFilter<1>({{{0.0}}, {0.0}, {0.0}, 1.0}, false);
    for (const float input : {1.5F, -2.0F, 1e-42F}) EXPECT_EQ(OutputFor(*filter, input), input);
}

TEST(StateSpaceFilter, FirstOrderStartsAtItsInputOrAtZero) {
    const Filter low_pass{{{0.75}}, {0.25}, {1.0}, 0.0};
    const auto initialized = MakeFilter<1>(low_pass, true);
    const auto plain = MakeFilter<1>(low_pass, false);
    for (int k = 0; k < 100; ++k) EXPECT_EQ(OutputFor(*initialized, 8.0F), 8.0F);
    EXPECT_EQ(OutputFor(*plain, 8.0F), 0.0F);
    EXPECT_EQ(OutputFor(*plain, 8.0F), 2.0F);
    // The input itself, also where it is no state at rest.
    EXPECT_EQ(OutputFor(*MakeFilter<1>({{{1.0}}, {3.0}, {1.0}, 0.0}, true), 8.0F), 8.0F);
}

TEST(StateSpaceFilter, SecondOrderStartsAtRestUnderItsFirstInput) {
    const auto filter = MakeFilter<2>(SECOND_ORDER, true);
    const float first = OutputFor(*filter, 4.0F);
    // (I - A) x = B u by hand: x = (0.3 * 0.9 + 0.5 * 0.2, 0.9 * 0.3 + 0.2 * 0.2) / 0.27 * 4.
    EXPECT_FLOAT_EQ(first, static_cast<float>((0.5 * 0.37 + 2.0 * 0.31) / 0.27 * 4.0 + 0.25 * 4.0));
    for (int k = 0; k < 1000; ++k) EXPECT_FLOAT_EQ(OutputFor(*filter, 4.0F), first);
    EXPECT_EQ(OutputFor(*MakeFilter<2>(SECOND_ORDER, false), 4.0F), 1.0F);
}

TEST(StateSpaceFilter, SecondOrderWithoutAStateAtRestStartsAtZero) {
    // Integrators, exact and but for rounding; coefficients beyond all measure.
    for (const Filter& shape : {Filter{{{1.0, 0.5}, {0.0, 1.0}}, {1.0, 1.0}, {1.0, 1.0}, 0.5},
                                Filter{{{0.9, 0.1}, {0.1, 0.9}}, {1.0, 1.0}, {1.0, 1.0}, 0.5},
                                Filter{{{1e200, 1.0}, {1.0, 1e200}}, {1.0, 1.0}, {1.0, 1.0}, 0.5}}) {
        EXPECT_EQ(OutputFor(*MakeFilter<2>(shape, true), 4.0F), 2.0F);
    }
}

}  // namespace
}  // namespace vosk::signal_processing::test
