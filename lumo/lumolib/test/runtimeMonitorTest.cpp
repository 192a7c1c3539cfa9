#include <lumolib/runtimeMonitor.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <gim/config.hpp>

#include <stdexcept>
#include <string>
#include <vector>

#include <vosk/test/logCapture.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

using testing::ElementsAre;
using vosk::lumo::RuntimeMonitor;
using vosk::test::At;
using vosk::test::LogCapture;
using namespace vosk::defs;

namespace {

// The fresh contents are at the back of the lists: earlier tests may have left theirs.
RuntimeMonitor& FreshMonitor() {
    return RuntimeMonitor::CreateInstance(gim::Config{});
}

void EnableStatistics(const std::string& yaml) {
    RuntimeMonitor::EnableStatistics(vosk::test::NodeOf(yaml)["cfg"]);
}

// Numbers in the log and the status are how an operator tells streams apart.
TEST(RuntimeMonitor, NumbersStatisticsAndStreamsInTheirOrder) {
    LogCapture log;
    auto& monitor = FreshMonitor();
    for (auto i = monitor.m_statistics.end() - 15; i != monitor.m_statistics.end(); ++i) {
        (*i)->Enable(std::chrono::nanoseconds{1});
        (*i)->Update(At(1), At(1));
        (*i)->Print();
    }
    std::vector<std::string> streams;
    for (const auto& line : log.Lines()) {
        if (line.text.starts_with("Stream")) streams.push_back(line.text.substr(7, line.text.find(':') - 7));
    }
    EXPECT_THAT(streams, ElementsAre("1", "1", "2", "2", "3", "3", "4", "4", "16", "10", "11", "12", "13",
                                     "14", "15"));
    std::vector<std::uint32_t> ids;
    for (auto i = monitor.m_stream_states.end() - 20; i != monitor.m_stream_states.end(); ++i) {
        ids.push_back((*i)->GetTopicData().stream_id);
    }
    EXPECT_THAT(ids, ElementsAre(7, 10, 8, 11, 9, 12, 5, 6, 15, 0, 2, 13, 17, 16, 1, 3, 4, 18, 19, 14));
}

TEST(RuntimeMonitor, ResetZeroesStreamsAndPerformanceAndSparesControlState) {
    auto& monitor = FreshMonitor();
    monitor.m_ms_output_state->RecordSentSample(At(5));
    RuntimeMonitor::GetPerformanceData().SetGpCmd(vosk::pfs::GPID{2}, At(5), std::array<float, 2>{1, 2},
                                                  true);
    RuntimeMonitor::GetPerformanceData().SetCentroidError(1, 2);
    RuntimeMonitor::GetStateData().SetPrimaryGP(2);
    monitor.m_command_counts->clock_steps = 3;
    monitor.Reset();
    EXPECT_EQ(monitor.m_command_counts->clock_steps, 0U);
    EXPECT_EQ(monitor.m_ms_output_state->GetTopicData().sample_count, 0U);
    EXPECT_EQ(RuntimeMonitor::GetPerformanceData().GetDataTopic().gp_cmd_time[2], At(0));
    EXPECT_FALSE(RuntimeMonitor::GetPerformanceData().GetDataTopic().gp_cmd_valid);
    EXPECT_FALSE(RuntimeMonitor::GetPerformanceData().GetWavefrontMetricData().wavefront_valid);
    EXPECT_EQ(RuntimeMonitor::GetStateData().GetTopicData().primary_gp, 2);
}

TEST(RuntimeMonitor, EnablesTheStatisticsThatTheConfigurationNamesToTheNanosecond) {
    LogCapture log;
    auto& monitor = FreshMonitor();
    EnableStatistics("cfg: {statistics: {wfs_gp2: 1333333 ns}}");
    for (const auto& statistics : {monitor.m_wfs_gp2_statistics, monitor.m_img_gp2_statistics}) {
        for (std::int64_t i = 0; i <= 1000; ++i) statistics->Update(At(i * 1'333'333), At(i * 1'333'333));
        statistics->Print();
    }
    EXPECT_EQ(log.Count(log4cplus::TRACE_LOG_LEVEL, "Stream 2: num_samples = 1000"), 1);
    EXPECT_TRUE(log.Has(log4cplus::TRACE_LOG_LEVEL, "  Jitter sent: max = 0 [us]"));
}

TEST(RuntimeMonitor, RefusesStatisticsThatItCannotGather) {
    FreshMonitor();
    for (const std::string entries : {"{m7: 2 ms}", "{m4: 0 ms}", "{m4: fast}", "[m4]"})
        EXPECT_THROW(EnableStatistics("cfg: {statistics: " + entries + "}"), std::runtime_error);
    EXPECT_NO_THROW(EnableStatistics("cfg: {}"));
}

TEST(StateData, ACompletedModeChangeStampsNothing) {
    atomclk::ManualClock clock{At(100)};
    vosk::lumo::StateData state;
    state.SetControlMode(VoskControlMode::HIGH_ORDER_CASCADE);
    EXPECT_TRUE(state.GetTopicData().mode_change_in_progress);
    clock.Set(At(200));
    state.SetModeChangeCompleted();
    EXPECT_FALSE(state.GetTopicData().mode_change_in_progress);
    EXPECT_EQ(state.GetTopicData().time, At(100));
    state.SetAoCmdSource(AoCommandSource::INS);
    EXPECT_EQ(state.GetTopicData().time, At(200));

    state.ResetData();
    const auto topic = state.GetTopicData();
    EXPECT_EQ(topic.time, At(0));
    EXPECT_FALSE(topic.changed);
    EXPECT_EQ(topic.control_mode, VoskControlMode::TEL_DRIVEN);
    EXPECT_EQ(topic.reserved_mode, 1U);
    EXPECT_EQ(topic.ao_cmd_source, AoCommandSource::OFF);
    EXPECT_EQ(topic.primary_gp, -1);
}

}  // namespace
