#include "../src/clockWatch.hpp"
#include "../src/statusReport.hpp"

#include <gmock/gmock.h>
#include <vosk/test/support.hpp>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <limits>

using namespace vosk::host;
using vosk::lumo::StreamTopic;
using vosk::test::At;

namespace {

TEST(StatusReport, OneLineHoldsFiguresInTheirOrderUnderTheirNames) {
    Status status;
    status.counts.front() = 1;
    status.counts.back() = std::uint64_t{1} << 63U;
    status.control.source = vosk::defs::AoCommandSource::CCS;
    status.commands.u4_fs_tt = {5, std::numeric_limits<float>::quiet_NaN()};
    status.streams.push_back(
        {.valid = true, .stream_id = 1, .sample_count = 7, .period = 0.002F, .losses = {3, 4, 5}});
    const auto text = ToJson(status);
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(text.find(R"({"mode":")"), 0U);
    for (
        const char* part :
        {R"("source":"CCS/TEL")",
         R"({"name":"M4_OUTPUT","valid":true,"samples":7,"invalid":0,"lost":3,"dropped_packets":4,"stale_packets":5,"period":0.002,)",
         R"("counts":{"late_setpoints":1,"missing_answers":0,)",
         R"("grid_points_skipped":9223372036854775808})", R"("u4":[5.0,null])", R"("threads_ended":[])"}) {
        EXPECT_THAT(text, testing::HasSubstr(part));
    }
}

TEST(StatusReport, WhatJsonCannotWriteIsNull) {
    Status status;
    StreamTopic still;
    still.valid = true;
    still.rate = std::numeric_limits<float>::infinity();
    still.period_min = 1e-12F;
    still.period_max = 1;
    StreamTopic one_time;  // two samples with one time stamp
    one_time.valid = true;
    one_time.period_max = -9.2e9F;
    one_time.period_min = 9.2e9F;
    status.streams = {one_time, still, StreamTopic{}};
    status.events = {{At(0), "a \"quoted\"\n\\ \xff text"}};
    const auto json = nlohmann::json::parse(ToJson(status));
    const auto& streams = json["streams"];
    EXPECT_EQ(streams[0]["period"], 0);
    EXPECT_TRUE(streams[0]["period_min"].is_null());
    EXPECT_TRUE(streams[0]["period_max"].is_null());
    EXPECT_TRUE(streams[1]["rate"].is_null());
    EXPECT_EQ(streams[1]["period_min"], 1e-12);
    EXPECT_TRUE(streams[2]["period"].is_null());
    EXPECT_EQ(json["events"][0]["text"], "a \"quoted\"\n\\ \ufffd text");
}

TEST(EventList, NotesChangesOnceAndKeepsTheLatest) {
    EventList list;
    ControlState state;
    list.Look(state, At(1));
    list.Look(state, At(2));
    EXPECT_EQ(list.Get().size(), 4U);
    for (int i = 1; i <= 1000; ++i) {
        state.handover_state = i;
        list.Look(state, At(2 + i));
    }
    EXPECT_EQ(list.Get().size(), MAX_EVENTS);
    EXPECT_EQ(list.Get().back().text, "handover state 1000");
    EXPECT_EQ(list.Get().back().time, At(1002));
}

TEST(ClockWatch, TellsAStepFromSlewing) {
    using namespace std::chrono_literals;
    const auto at = [](auto time) { return ClockWatch::Steady::time_point{time}; };
    ClockWatch watch{At(100s), at(5s)};
    EXPECT_EQ(watch.Look(At(111s), at(15s)), std::nullopt);
    EXPECT_EQ(watch.Look(At(75s), at(16s)), -37s);
    EXPECT_EQ(watch.Look(At(76s), at(17s)), std::nullopt);
    EXPECT_EQ(watch.Look(At(79s), at(18s)), 2s);
}

}  // namespace
