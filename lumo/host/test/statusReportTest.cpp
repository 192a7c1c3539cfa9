#include "../src/statusReport.hpp"

#include <gmock/gmock.h>
#include <vosk/test/support.hpp>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <iterator>
#include <limits>
#include <sstream>

using namespace vosk::host;
using vosk::lumo::StreamTopic;
using vosk::test::At;

namespace {

// Throws on anything that is not JSON.
boost::property_tree::ptree Parse(const std::string& json) {
    std::istringstream stream{json};
    boost::property_tree::ptree tree;
    boost::property_tree::read_json(stream, tree);
    return tree;
}

// The names are what tools read; each value is another, so that none can stand in another's place.
TEST(StatusReport, HoldsEachValueUnderItsName) {
    Status status;
    status.control = {.mode = vosk::defs::VoskControlMode::INS_DRIVEN_CASCADE,
                      .camera = vosk::defs::Camera::WFS_GP2,
                      .source = vosk::defs::AoCommandSource::CCS,
                      .handover_state = 6};
    status.handover_running = true;
    status.record = {.time = At(4), .changed = true, .primary_gp = 2, .m1_offload = true};
    status.threads_ended = {"AoTasks", "M4Input"};
    StreamTopic& stream = status.streams.emplace_back();
    stream.stream_id = 1;
    stream.valid = true;
    stream.sample_count = 7;
    stream.invalid_count = 2;
    stream.period = 0.002F;
    stream.period_min = 0.00125F;
    stream.period_max = 0.5F;
    stream.rate = 500.0F;
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
    status.wavefront = {At(9), true, {0.5F, 1}, {2, 3}};
    status.field_stabilisation = {At(10), true, 11, 12, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, 13};
    status.log_dropped = 3;
    status.events = {{At(12), "source INS"}};
    EXPECT_EQ(
        ToJson(status),
        R"({"mode":"INS_DRIVEN_CASCADE","camera":"WFS_GP2","source":"CCS/TEL","handover_state":6,)"
        R"("handover_running":true,"gp_centering":true,"mode_change_in_progress":false,"changed":true,)"
        R"("changed_time_ns":4,"primary_gp":2,"m1_offload":true,"guiding":false,)"
        R"("threads_ended":["AoTasks","M4Input"],)"
        R"("streams":[{"name":"M4_OUTPUT","valid":true,"samples":7,"invalid":2,)"
        R"("period":0.002,"period_min":0.00125,"period_max":0.5,"rate":500}],)"
        R"("commands":{"gp_time_ns":[0,0,5],"gp":[[0,0],[0,0],[1,2]],"gp_valid":true,)"
        R"("ms_time_ns":6,"ms":[3,4],"u4_time_ns":7,"u4":[5,null],"u5_time_ns":8,"u5":[6,7],"u5_m5":[8,9]},)"
        R"("wavefront":{"time_ns":9,"valid":true,"centroid_error":[0.5,1],"tip_tilt_error":[2,3]},)"
        R"("fs":{"time_ns":10,"output_done":true,"input_cycles":11,"output_cycles":12,)"
        R"("input_counts":[1,2,3,4,5,6,7,8,9,10,11],"output_count":13},)"
        R"("log_dropped":3,"events":[{"time_ns":12,"text":"source INS"}]})");
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
    status.streams = {one_time, still};
    status.events = {{At(0), "a \"quoted\"\n\\ \xff text"}};
    const auto tree = Parse(ToJson(status));
    const auto& first = tree.get_child("streams").front().second;
    const auto& second = tree.get_child("streams").back().second;
    EXPECT_EQ(first.get<std::string>("period"), "0");
    EXPECT_EQ(first.get<std::string>("period_min"), "null");
    EXPECT_EQ(first.get<std::string>("period_max"), "null");
    EXPECT_EQ(second.get<std::string>("rate"), "null");
    EXPECT_EQ(second.get<std::string>("period_min"), "1e-12");
    EXPECT_EQ(ToJson(status).find('\n'), std::string::npos);
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

}  // namespace
