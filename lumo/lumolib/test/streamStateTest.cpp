#include <lumolib/streamState.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using vosk::lumo::DataStreamIdentifier;
using vosk::lumo::InputStreamState;
using vosk::lumo::OutputStreamState;
using vosk::lumo::time_point;

namespace {

time_point At(std::int64_t count) {
    return time_point{std::chrono::nanoseconds{count}};
}

TEST(StreamState, KnowsNoPeriodAfterAReset) {
    atomclk::ManualClock clock{At(77)};
    InputStreamState state{DataStreamIdentifier::WFS_GP2};
    state.RecordValidSample(At(1000));
    state.RecordInvalidSample(At(2000));
    state.Reset();

    const auto topic = state.GetTopicData();
    EXPECT_EQ(topic.time, At(77));
    EXPECT_FALSE(topic.valid);
    EXPECT_EQ(topic.stream_id, 11U);
    EXPECT_TRUE(topic.enabled);
    EXPECT_EQ(topic.sample_count, 0U);
    EXPECT_EQ(topic.invalid_count, 0U);
    EXPECT_EQ(topic.period, 0.0F);
    EXPECT_TRUE(std::isinf(topic.rate));
    EXPECT_FLOAT_EQ(topic.period_max, -9.223372e9F);
    EXPECT_FLOAT_EQ(topic.period_min, 9.223372e9F);
}

TEST(StreamState, PeriodIsKnownFromTheSecondSampleOn) {
    OutputStreamState state{DataStreamIdentifier::M4_OUTPUT};
    state.RecordSentSample(At(1'000'000));
    EXPECT_FALSE(state.GetTopicData().valid);
    EXPECT_EQ(state.GetTopicData().sample_count, 1U);
    EXPECT_GT(state.GetTopicData().period_min, 9e9F);

    state.RecordSentSample(At(3'000'000));
    const auto topic = state.GetTopicData();
    EXPECT_TRUE(topic.valid);
    EXPECT_EQ(topic.sample_count, 2U);
    EXPECT_FLOAT_EQ(topic.period, 0.002F);
    EXPECT_FLOAT_EQ(topic.rate, 500.0F);
    EXPECT_FLOAT_EQ(topic.period_max, 0.002F);
    EXPECT_FLOAT_EQ(topic.period_min, 0.002F);
}

TEST(StreamState, InvalidSamplesTakePartInThePeriodFigures) {
    InputStreamState state{DataStreamIdentifier::PFS_INPUT};
    state.RecordValidSample(At(1'000'000));
    state.RecordInvalidSample(At(1'500'000));
    state.RecordValidSample(At(3'000'000));

    const auto topic = state.GetTopicData();
    EXPECT_EQ(topic.sample_count, 2U);
    EXPECT_EQ(topic.invalid_count, 1U);
    EXPECT_FLOAT_EQ(topic.period_min, 0.0005F);
    EXPECT_FLOAT_EQ(topic.period_max, 0.0015F);
}

TEST(StreamState, RepeatedTimeGivesAZeroPeriodAndSparesTheExtremes) {
    InputStreamState state{DataStreamIdentifier::M5_INPUT};
    for (std::int64_t time : {1'000'000, 2'000'000, 2'000'000}) state.RecordValidSample(At(time));
    const auto topic = state.GetTopicData();
    EXPECT_TRUE(topic.valid);
    EXPECT_TRUE(std::isinf(topic.rate));
    EXPECT_FLOAT_EQ(topic.period_min, 0.001F);
    EXPECT_FLOAT_EQ(topic.period_max, 0.001F);
}

TEST(StreamState, SurvivesTimesAtBothEndsOfTheClock) {
    InputStreamState state{DataStreamIdentifier::M4_INPUT};
    state.RecordValidSample(At(std::numeric_limits<std::int64_t>::min()));
    state.RecordValidSample(At(std::numeric_limits<std::int64_t>::max()));
    EXPECT_FLOAT_EQ(state.GetTopicData().period, -1e-9F);
}

}  // namespace
