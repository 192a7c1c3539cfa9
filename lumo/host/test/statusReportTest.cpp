#include "../src/statusReport.hpp"

#include <gmock/gmock.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <iterator>
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
                      .handover_state = 6};
    status.handover_running = true;
    status.record.mode_change_in_progress = true;
    status.record.gp_centering = true;
    status.record.primary_gp = 2;
    status.record.m1_offload = true;
    status.record.guiding = true;
    status.threads_ended = {"AoTasks", "M4Input"};
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
    status.commands.gp_cmd_time[2] = At(5);
    status.commands.gp_cmd[2] = {1, 2};
    status.commands.gp_cmd_valid = true;
    status.commands.ms_fs_tt_time = At(6);
    status.commands.ms_fs_tt = {3, 4};
    status.commands.u4_fs_tt_time = At(7);
    status.commands.u4_fs_tt = {5, std::numeric_limits<float>::quiet_NaN()};
    status.commands.u5_fs_tt_time = At(8);
    status.commands.u5_fs_tt = {6, 7};
    status.commands.u5_m5_tt = {8, 9};
    status.wavefront = {.wavefront_time = At(9),
                        .wavefront_valid = true,
                        .centroid_error = {0.5F, 1},
                        .tip_tilt_error = {2, 3}};
    status.field_stabilisation = {.fs_time = At(10),
                                  .fs_output_done = true,
                                  .fs_input_cycles = 11,
                                  .fs_output_cycles = 12,
                                  .fs_input_counts = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11},
                                  .fs_output_count = 13};
    status.log_dropped = 3;
    status.events = {{At(12), "source INS"}};
    EXPECT_EQ(
        ToJson(status),
        R"({"mode":"INS_DRIVEN_CASCADE","camera":"WFS_GP2","source":"CCS/TEL","handover_state":6,)"
        R"("handover_running":true,"mode_change_in_progress":true,"gp_centering":true,"primary_gp":2,)"
        R"("m1_offload":true,"guiding":true,"threads_ended":["AoTasks","M4Input"],)"
        R"("streams":[{"name":"M4_OUTPUT","valid":true,"samples":7,"invalid":2,)"
        R"("period":0.002,"period_min":0.00125,"period_max":0.5,"rate":500}],)"
        R"("commands":{"gp_time_ns":[0,0,5],"gp":[[0,0],[0,0],[1,2]],"gp_valid":true,)"
        R"("ms_time_ns":6,"ms":[3,4],"u4_time_ns":7,"u4":[5,null],"u5_time_ns":8,"u5":[6,7],"u5_m5":[8,9]},)"
        R"("wavefront":{"time_ns":9,"valid":true,"centroid_error":[0.5,1],"tip_tilt_error":[2,3]},)"
        R"("fs":{"time_ns":10,"output_done":true,"input_cycles":11,"output_cycles":12,)"
        R"("input_counts":[1,2,3,4,5,6,7,8,9,10,11],"output_count":13},)"
        R"("log_dropped":3,"events":[{"time_ns":12,"text":"source INS"}]})");
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
    still.period_max = 1;
    StreamTopic one_time;  // two samples with one time stamp
    one_time.valid = true;
    one_time.period_max = -9.2e9F;
    one_time.period_min = 9.2e9F;
    status.streams = {fresh, one_time, still};
    status.events = {{At(0), "a \"quoted\"\n\\ \xff text"}};
    const auto tree = Parse(ToJson(status));
    const auto& streams = tree.get_child("streams");
    EXPECT_EQ(streams.front().second.get<std::string>("period_max"), "null");
    const auto& second = std::next(streams.begin())->second;
    EXPECT_EQ(second.get<std::string>("period"), "0");
    EXPECT_EQ(second.get<std::string>("period_min"), "null");
    EXPECT_EQ(second.get<std::string>("period_max"), "null");
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
