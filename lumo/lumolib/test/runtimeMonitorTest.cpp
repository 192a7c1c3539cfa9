#include <lumolib/runtimeMonitor.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <gim/config.hpp>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include <vosk/common/testing/logCapture.hpp>

using vosk::common::LogCapture;
using vosk::lumo::RuntimeMonitor;
using vosk::lumo::StateTopic;
using vosk::lumo::time_point;
using namespace vosk::defs;

namespace {

time_point At(std::int64_t count) {
    return time_point{std::chrono::nanoseconds{count}};
}

// The fresh contents are at the back of the lists: earlier tests may have left theirs.
RuntimeMonitor& FreshMonitor() {
    return RuntimeMonitor::CreateInstance(gim::Config{});
}

void EnableStatistics(const std::string& yaml) {
    RuntimeMonitor::EnableStatistics(
        oru::configng::PliConfigDocument::FromText(yaml, "test.yaml").Instances()["cfg"]);
}

void ExpectRefused(const std::string& yaml, const std::string& words) {
    LogCapture log;
    try {
        EnableStatistics(yaml);
        FAIL() << "accepted " << yaml;
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), testing::AllOf(testing::StartsWith("ERR: "), testing::HasSubstr(words)));
        EXPECT_TRUE(log.Has(log4cplus::ERROR_LOG_LEVEL, error.what()));
    }
}

// Numbers in the log are how an operator tells streams apart.
TEST(RuntimeMonitor, NumbersStatisticsAndStreamsInTheirOrder) {
    LogCapture log;
    auto& monitor = FreshMonitor();
    ASSERT_GE(monitor.m_statistics.size(), 15U);
    const std::size_t first = monitor.m_statistics.size() - 15;
    for (std::size_t i = first; i < monitor.m_statistics.size(); ++i) {
        monitor.m_statistics[i]->Enable(std::chrono::nanoseconds{1});
        monitor.m_statistics[i]->Update(At(1), At(1));
        monitor.m_statistics[i]->Print();
    }
    std::vector<std::string> streams;
    for (const auto& line : log.Lines()) {
        if (line.text.starts_with("Stream")) streams.push_back(line.text.substr(7, line.text.find(':') - 7));
    }
    EXPECT_THAT(streams, testing::ElementsAre("1", "1", "2", "2", "3", "3", "4", "4", "16", "10", "11", "12",
                                              "13", "14", "15"));

    std::vector<std::uint32_t> ids;
    for (auto i = monitor.m_stream_states.end() - 20; i != monitor.m_stream_states.end(); ++i) {
        ids.push_back((*i)->GetTopicData().stream_id);
    }
    EXPECT_THAT(ids,
                testing::ElementsAre(7, 10, 8, 11, 9, 12, 5, 6, 15, 0, 2, 13, 17, 16, 1, 3, 4, 18, 19, 14));
}

// The lists are in the order of the members, which are what threads take.
TEST(RuntimeMonitor, ListsItsMembersInOrder) {
    auto& m = FreshMonitor();
    const std::vector<std::shared_ptr<vosk::lumo::Statistics>> statistics{
        m.m_img_gp1_statistics, m.m_wfs_gp1_statistics, m.m_img_gp2_statistics, m.m_wfs_gp2_statistics,
        m.m_img_gp3_statistics, m.m_wfs_gp3_statistics, m.m_img_pds_statistics, m.m_wfs_pds_statistics,
        m.m_fs_statistics,      m.m_m4_statistics,      m.m_m5_statistics,      m.m_pfs_statistics,
        m.m_ms_statistics,      m.m_ao_statistics,      m.m_ecmwf_statistics};
    EXPECT_TRUE(std::equal(statistics.rbegin(), statistics.rend(), m.m_statistics.rbegin()));
    const std::vector<std::shared_ptr<vosk::lumo::StreamState>> states{
        m.m_img_gp1_state,          m.m_wfs_gp1_state,   m.m_img_gp2_state,   m.m_wfs_gp2_state,
        m.m_img_gp3_state,          m.m_wfs_gp3_state,   m.m_img_pds_state,   m.m_wfs_pds_state,
        m.m_ao_wavefront_cmd_state, m.m_m4_input_state,  m.m_m5_input_state,  m.m_pfs_input_state,
        m.m_ecmwf_input_state,      m.m_ao_output_state, m.m_m4_output_state, m.m_m5_output_state,
        m.m_ms_output_state,        m.m_fs_input_state,  m.m_fs_output_state, m.m_pfs_output_state};
    EXPECT_TRUE(std::equal(states.rbegin(), states.rend(), m.m_stream_states.rbegin()));
}

TEST(RuntimeMonitor, ASecondSetUpKeepsTheFormerObjectsInTheListsOnly) {
    auto& monitor = FreshMonitor();
    const auto former = monitor.m_m4_input_state;
    const auto statistics = monitor.m_statistics.size();
    const auto states = monitor.m_stream_states.size();
    FreshMonitor();
    EXPECT_NE(monitor.m_m4_input_state, former);
    EXPECT_EQ(monitor.m_statistics.size(), statistics + 15);
    EXPECT_EQ(monitor.m_stream_states.size(), states + 20);
}

TEST(RuntimeMonitor, ResetZeroesStreamsAndPerformanceAndSparesControlState) {
    auto& monitor = FreshMonitor();
    monitor.m_ms_output_state->RecordSentSample(At(5));
    RuntimeMonitor::GetPerformanceData().SetMsFsTt(At(5), std::array<float, 2>{1, 2});
    RuntimeMonitor::GetPerformanceData().SetGpCmd(vosk::pfs::GPID{2}, At(5), std::array<float, 2>{1, 2},
                                                  true);
    RuntimeMonitor::GetPerformanceData().SetCentroidError(1, 2);
    RuntimeMonitor::GetStateData().SetPrimaryGP(2);
    monitor.Reset();
    EXPECT_EQ(monitor.m_ms_output_state->GetTopicData().sample_count, 0U);
    const auto topic = RuntimeMonitor::GetPerformanceData().GetDataTopic();
    EXPECT_EQ(topic.ms_fs_tt, FloatVectorTT{});
    EXPECT_EQ(topic.gp_cmd_time[2], At(0));
    EXPECT_FALSE(topic.gp_cmd_valid);
    EXPECT_FALSE(RuntimeMonitor::GetPerformanceData().GetWavefrontMetricData().wavefront_valid);
    EXPECT_EQ(RuntimeMonitor::GetStateData().GetTopicData().primary_gp, 2);
}

TEST(RuntimeMonitor, EnablesTheStatisticsThatTheConfigurationNames) {
    LogCapture log;
    auto& monitor = FreshMonitor();
    EnableStatistics("cfg: {statistics: {m4: 2 ms, wfs_gp2: 500 us}}");
    monitor.m_m4_statistics->UpdateTsSent(At(0));
    monitor.m_m4_statistics->UpdateTsReceived(At(0));
    monitor.m_m4_statistics->UpdateTsSent(At(2'000'000));
    monitor.m_m4_statistics->UpdateTsReceived(At(2'003'000));
    for (const auto& statistics : {monitor.m_wfs_gp2_statistics, monitor.m_img_gp2_statistics}) {
        statistics->Update(At(0), At(0));
        statistics->Update(At(500'000), At(501'000));
        statistics->Print();
    }
    monitor.m_m4_statistics->Print();
    EXPECT_EQ(log.Count(log4cplus::TRACE_LOG_LEVEL, "Stream 2: num_samples = 1"), 1);
    EXPECT_TRUE(log.Has(log4cplus::TRACE_LOG_LEVEL, "  Jitter sent: max = 0 [us]"));
    EXPECT_TRUE(log.Has(log4cplus::TRACE_LOG_LEVEL, "  Jitter received: max = 1 [us]"));
    EXPECT_TRUE(log.Has(log4cplus::TRACE_LOG_LEVEL, "  Jitter received: max = 3 [us]"));
}

TEST(RuntimeMonitor, TakesNominalPeriodsToTheNanosecond) {
    LogCapture log;
    auto& monitor = FreshMonitor();
    EnableStatistics("cfg: {statistics: {wfs_gp1: 1333333 ns}}");
    for (std::int64_t i = 0; i <= 1000; ++i) {
        monitor.m_wfs_gp1_statistics->Update(At(i * 1'333'333), At(i * 1'333'333));
    }
    monitor.m_wfs_gp1_statistics->Print();
    EXPECT_TRUE(log.Has(log4cplus::TRACE_LOG_LEVEL, "  Jitter sent: max = 0 [us]"));
}

TEST(RuntimeMonitor, RefusesStatisticsThatItCannotGather) {
    FreshMonitor();
    ExpectRefused("cfg: {statistics: {m7: 2 ms}}", "m7");
    ExpectRefused("cfg: {statistics: {m4: 0 ms}}", "m4");
    ExpectRefused("cfg: {statistics: {m4: fast}}", "m4");
    EXPECT_THROW(EnableStatistics("cfg: {statistics: [m4]}"), std::runtime_error);
    EXPECT_NO_THROW(EnableStatistics("cfg: {m4: {}}"));
    EXPECT_NO_THROW(EnableStatistics("cfg: {}"));
    EXPECT_NO_THROW(RuntimeMonitor::EnableStatistics({}));
}

TEST(StateData, EachSetterStampsItsFieldAndCompletionStampsNothing) {
    atomclk::ManualClock clock{At(100)};
    vosk::lumo::StateData state;
    EXPECT_FALSE(state.GetTopicData().changed);

    state.SetControlMode(VoskControlMode::HIGH_ORDER_CASCADE);
    auto topic = state.GetTopicData();
    EXPECT_EQ(topic.time, At(100));
    EXPECT_TRUE(topic.changed);
    EXPECT_TRUE(topic.mode_change_in_progress);
    EXPECT_EQ(topic.control_mode, VoskControlMode::HIGH_ORDER_CASCADE);

    clock.Set(At(200));
    state.SetModeChangeCompleted();
    EXPECT_FALSE(state.GetTopicData().mode_change_in_progress);
    EXPECT_EQ(state.GetTopicData().time, At(100));

    state.SetGPCentering(true);
    state.SetPrimaryGP(2);
    state.SetM1Offload(true);
    state.SetGuiding(true);
    state.SetAoCmdSource(AoCommandSource::INS);
    topic = state.GetTopicData();
    EXPECT_EQ(topic.time, At(200));
    EXPECT_TRUE(topic.gp_centering && topic.m1_offload && topic.guiding);
    EXPECT_EQ(topic.primary_gp, 2);
    EXPECT_EQ(topic.ao_cmd_source, AoCommandSource::INS);
    EXPECT_FALSE(topic.mode_change_in_progress);
}

TEST(StateData, ResetGivesTheFirstValues) {
    vosk::lumo::StateData state;
    state.SetControlMode(VoskControlMode::INS_DRIVEN_CASCADE);
    state.SetAoCmdSource(AoCommandSource::NONE);
    state.SetPrimaryGP(1);
    state.ResetData();
    const auto topic = state.GetTopicData();
    EXPECT_EQ(topic.time, At(0));
    EXPECT_FALSE(topic.changed);
    EXPECT_FALSE(topic.mode_change_in_progress);
    EXPECT_EQ(topic.control_mode, VoskControlMode::TEL_DRIVEN);
    EXPECT_EQ(topic.reserved_mode, 1U);
    EXPECT_EQ(topic.ao_cmd_source, AoCommandSource::OFF);
    EXPECT_EQ(topic.primary_gp, -1);
}

}  // namespace
