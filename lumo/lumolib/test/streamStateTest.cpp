#include <lumolib/streamState.hpp>

#include <vosk/test/support.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using vosk::lumo::InputStreamState;
using vosk::test::At;
using enum vosk::lumo::DataStreamIdentifier;

namespace {

TEST(StreamState, PeriodIsKnownFromTheSecondSampleOnAndInvalidOnesTakePart) {
    const atomclk::ManualClock clock{At(77)};
    InputStreamState state{WFS_GP2};
    state.RecordValidSample(At(1'000'000));
    EXPECT_FALSE(state.GetTopicData().valid);
    state.RecordInvalidSample(At(1'500'000));
    state.RecordValidSample(At(3'000'000));
    state.RecordValidSample(At(3'000'000));  // a period of zero, which spares the extremes

    auto topic = state.GetTopicData();
    EXPECT_TRUE(topic.valid);
    EXPECT_EQ(topic.sample_count, 3U);
    EXPECT_EQ(topic.invalid_count, 1U);
    EXPECT_TRUE(std::isinf(topic.rate));
    EXPECT_FLOAT_EQ(topic.period_min, 0.0005F);
    EXPECT_FLOAT_EQ(topic.period_max, 0.0015F);
    state.RecordValidSample(At(5'000'000));
    EXPECT_FLOAT_EQ(state.GetTopicData().period, 0.002F);
    EXPECT_FLOAT_EQ(state.GetTopicData().rate, 500.0F);

    state.Reset();
    topic = state.GetTopicData();
    EXPECT_EQ(topic.time, At(77));
    EXPECT_FALSE(topic.valid);
    EXPECT_EQ(topic.stream_id, 11U);
    EXPECT_EQ(topic.sample_count + topic.invalid_count, 0U);
    EXPECT_EQ(topic.period, 0.0F);
    EXPECT_FLOAT_EQ(topic.period_max, -9.223372e9F);
    EXPECT_FLOAT_EQ(topic.period_min, 9.223372e9F);
}

TEST(StreamState, SurvivesTimesAtBothEndsOfTheClock) {
    InputStreamState state{M4_INPUT};
    state.RecordValidSample(At(std::numeric_limits<std::int64_t>::min()));
    state.RecordValidSample(At(std::numeric_limits<std::int64_t>::max()));
    EXPECT_FLOAT_EQ(state.GetTopicData().period, -1e-9F);
}

}  // namespace
