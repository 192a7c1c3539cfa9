#include "../src/statusReport.hpp"

#include <gmock/gmock.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <limits>
#include <sstream>

using namespace vosk::host;
using vosk::lumo::StreamTopic;
using namespace std::chrono_literals;

namespace {

atomclk::AtomClk::time_point At(std::int64_t count) {
    return atomclk::AtomClk::time_point{std::chrono::nanoseconds{count}};
}

// Throws on anything that is not JSON.
boost::property_tree::ptree Parse(const std::string& json) {
    std::istringstream stream{json};
    boost::property_tree::ptree tree;
    boost::property_tree::read_json(stream, tree);
    return tree;
}

TEST(StatusReport, IsOneLineOfJson) {
    Status status;
    status.control = {.mode = vosk::defs::VoskControlMode::INS_DRIVEN_CASCADE,
                      .camera = vosk::defs::Camera::WFS_GP2,
                      .source = vosk::defs::AoCommandSource::CCS,
                      .handover_state = 4,
                      .mode_change_in_progress = true};
    StreamTopic stream;
    stream.stream_id = 1;
    stream.valid = true;
    stream.sample_count = 7;
    stream.invalid_count = 2;
    stream.period = 0.002F;
    stream.period_min = 0.00125F;
    stream.period_max = 0.5F;
    stream.rate = 500.0F;
    status.streams = {stream};
    status.log_dropped = 3;
    status.events = {{At(12), "source INS"}};
    EXPECT_EQ(
        ToJson(status),
        R"({"mode":"INS_DRIVEN_CASCADE","camera":"WFS_GP2","source":"CCS/TEL","handover_state":4,)"
        R"("mode_change_in_progress":true,"streams":[{"name":"M4_OUTPUT","valid":true,"samples":7,"invalid":2,)"
        R"("period":0.002,"period_min":0.00125,"period_max":0.5,"rate":500}],"log_dropped":3,)"
        R"("events":[{"time_ns":12,"text":"source INS"}]})");
    EXPECT_EQ(Parse(ToJson(status)).get<std::string>("source"), "CCS/TEL");
}

TEST(StatusReport, WhatJsonCannotWriteIsNull) {
    Status status;
    StreamTopic fresh;
    fresh.period_max = -9.2e9F;
    StreamTopic still;
    still.valid = true;
    still.rate = std::numeric_limits<float>::infinity();
    still.period = std::numeric_limits<float>::quiet_NaN();
    still.period_min = 1e-12F;
    status.streams = {fresh, still};
    status.events = {{At(0), "a \"quoted\"\n\\ \xff text"}};
    const auto tree = Parse(ToJson(status));
    const auto& streams = tree.get_child("streams");
    EXPECT_EQ(streams.front().second.get<std::string>("period_max"), "null");
    EXPECT_EQ(streams.back().second.get<std::string>("rate"), "null");
    EXPECT_EQ(streams.back().second.get<std::string>("period"), "null");
    EXPECT_EQ(streams.back().second.get<std::string>("period_min"), "1e-12");
    EXPECT_EQ(ToJson(status).find('\n'), std::string::npos);
}

TEST(EventList, NotesChangesOnceAndKeepsTheLatest) {
    EventList list;
    ControlState state;
    list.Look(state, At(1));
    EXPECT_EQ(list.Get().size(), 4U);
    list.Look(state, At(2));
    EXPECT_EQ(list.Get().size(), 4U);
    state.handover_state = 1;
    state.source = vosk::defs::AoCommandSource::NONE;
    list.Look(state, At(3));
    ASSERT_EQ(list.Get().size(), 6U);
    EXPECT_EQ(list.Get()[4].text, "handover state 1");
    EXPECT_EQ(list.Get()[5].text, "source NONE");
    EXPECT_EQ(list.Get()[5].time, At(3));

    for (int i = 0; i < 1000; ++i) {
        ++state.handover_state;
        list.Look(state, At(4 + i));
    }
    EXPECT_EQ(list.Get().size(), MAX_EVENTS);
    EXPECT_EQ(list.Get().back().text, "handover state 1001");
}

}  // namespace
