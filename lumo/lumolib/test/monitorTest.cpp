// What threads leave for the host: jitter, periods, counts, the newest commands, control state.

#include <gim/config.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

namespace vosk::lumo {
namespace {

using namespace std::chrono_literals;
using defs::FloatVectorTT;
using testing::Each;
using testing::ElementsAre;
using vosk::test::At;
using vosk::test::LogCapture;

constexpr std::int64_t LOWEST = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t HIGHEST = std::numeric_limits<std::int64_t>::max();

// The lines that Print adds to the log: none without data, else the count of samples first, then in
// microseconds max, mean and standard deviation of the jitter sent and of the jitter received.
std::vector<std::string> Figures(Statistics& statistics) {
    const LogCapture log;
    statistics.Print();
    std::vector<std::string> figures;
    for (const std::string& text : log.Texts("")) {
        const auto start = text.find("= ") + 2;
        figures.push_back(text.substr(start, text.find(" [us]") - start));
    }
    return figures;
}

TEST(Statistics, MeasuresDeviationFromTheGridOfTheFirstSample) {
    Statistics statistics{7};
    statistics.Update(At(0), At(0));  // not enabled yet
    EXPECT_THAT(Figures(statistics), ElementsAre());
    statistics.Enable(1000ns);
    for (const auto& [sent, received] : {std::pair{0, 500}, {1000, 1500}, {2100, 2500}, {2900, 3510}})
        statistics.Update(At(sent), At(received));
    EXPECT_THAT(Figures(statistics), ElementsAre("3", "0.1", "0.066", "0.057", "0.01", "0.003", "0.005"));
    statistics.Update(At(90'001), At(90'001));  // a new interval
    EXPECT_THAT(Figures(statistics), ElementsAre("0", "0", "0", "0", "0", "0", "0"));
}

TEST(Statistics, TheLaterCallCompletesAPairWithTheNewestTimes) {
    StatisticsBuffered statistics{10};
    statistics.Enable(1us);
    statistics.UpdateTsSent(At(0));
    statistics.UpdateTsReceived(At(100));  // the anchor
    statistics.UpdateTsSent(At(400));      // lost: its answer never came
    statistics.UpdateTsSent(At(1005));
    statistics.UpdateTsReceived(At(1107));
    statistics.UpdateTsReceived(At(2100));  // the other order
    statistics.UpdateTsSent(At(2001));
    EXPECT_THAT(Figures(statistics), ElementsAre("2", "0.005", "0.003", "0.002", "0.007", "0.003", "0.005"));
    statistics.UpdateTsSent(At(5000));  // one side alone is no sample
    EXPECT_THAT(Figures(statistics), ElementsAre());
}

TEST(Statistics, TwoThreadsSupplyTheTwoTimesWhileAThirdPrints) {
    constexpr unsigned long TIMES = 20'000;
    StatisticsBuffered statistics{10};
    statistics.Enable(1us);
    const auto supply = [&statistics](void (StatisticsBuffered::*update)(time_point)) {
        return std::jthread{[&statistics, update] {
            for (unsigned long i = 0; i < TIMES; ++i) (statistics.*update)(At(0));
        }};
    };
    auto sender = supply(&StatisticsBuffered::UpdateTsSent);
    auto receiver = supply(&StatisticsBuffered::UpdateTsReceived);
    unsigned long pairs = 0;
    const auto count = [&] {
        const auto figures = Figures(statistics);
        if (!figures.empty()) pairs += std::stoul(figures[0]) + 1;  // the anchor isn't counted
    };
    for (int i = 0; i < 100; ++i) count();
    sender.join();
    receiver.join();
    count();
    EXPECT_GE(pairs, 1U);
    EXPECT_LE(pairs, TIMES);
}

TEST(Statistics, GiveDurationsInWholeMicrosecondsWithoutTheFirst) {
    StatisticsDuration duration;
    std::array<double, 3> values{};  // largest, mean, standard deviation
    for (auto value : {900'000ns, 10'999ns, 20'000ns, 30'500ns}) duration.Update(value);
    duration.GetValues(values[0], values[1], values[2]);
    EXPECT_THAT(values, ElementsAre(30, 20, 9));  // mean 61499 / 3 = 20499 ns, deviation 9760 ns
    values.fill(-1);
    duration.GetValues(values[0], values[1], values[2]);
    EXPECT_THAT(values, Each(-1));  // reading resets
}

TEST(StreamState, PeriodIsKnownFromTheSecondSampleOnAndInvalidOnesTakePart) {
    InputStreamState state{DataStreamIdentifier::WFS_GP2};
    state.RecordValidSample(At(1'000'000));
    EXPECT_FALSE(state.GetTopicData().valid);
    state.RecordInvalidSample(At(1'500'000));
    state.RecordValidSample(At(3'000'000));
    state.RecordValidSample(At(3'000'000));  // a period of zero, which spares the extremes
    const auto topic = state.GetTopicData();
    EXPECT_TRUE(topic.valid);
    EXPECT_EQ(topic.sample_count, 3U);
    EXPECT_EQ(topic.invalid_count, 1U);
    EXPECT_TRUE(std::isinf(topic.rate));
    EXPECT_FLOAT_EQ(topic.period_min, 0.0005F);
    EXPECT_FLOAT_EQ(topic.period_max, 0.0015F);
    state.Reset();
    EXPECT_FALSE(state.GetTopicData().valid);
    EXPECT_FLOAT_EQ(state.GetTopicData().period_min, 9.223372e9F);
}

// The quantile of a sorted list, or up to a sixteenth more.
TEST(DurationHistogram, GivesQuantilesOfAnyDurationsWithinABucket) {
    std::vector<std::int64_t> times;
    for (std::int64_t time = 0; time < 68'000'000'000; time += time / 7 + 1) times.push_back(time);
    DurationHistogram histogram;
    EXPECT_EQ(histogram.GetQuantile(0.5), 0ns);
    for (const auto time : times) histogram.Add(std::chrono::nanoseconds{time});
    for (const double share : {0.001, 0.1, 0.5, 0.9, 0.99, 1.0}) {
        const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(times.size())));
        const std::int64_t exact = times[rank - 1];
        const auto found = histogram.GetQuantile(share).count();
        EXPECT_GE(found, exact) << share;
        EXPECT_LE(found, exact + exact / 16) << share;
    }
    DurationHistogram ends;
    ends.Add(std::chrono::nanoseconds{LOWEST});
    ends.Add(std::chrono::nanoseconds{HIGHEST});
    EXPECT_EQ(ends.GetQuantile(0.5), 0ns);
    EXPECT_EQ(ends.GetQuantile(1.0), std::chrono::nanoseconds{(std::int64_t{1} << 36U) - 1});
}

TEST(Monitor, SurvivesTimesAtBothEndsOfTheClock) {
    InputStreamState state{DataStreamIdentifier::M4_INPUT};
    state.RecordValidSample(At(LOWEST));
    state.RecordValidSample(At(HIGHEST));
    EXPECT_FLOAT_EQ(state.GetTopicData().period, -1e-9F);
    Statistics statistics{1};
    statistics.Enable(std::chrono::nanoseconds::max());
    statistics.Update(At(LOWEST), At(HIGHEST));
    for (int i = 0; i < 3; ++i) statistics.Update(At(HIGHEST), At(LOWEST));
    EXPECT_EQ(Figures(statistics).at(0), "3");
}

TEST(PerformanceData, KeepsCommandsApartAndClearsWhatANewErrorReplaces) {
    using TT = std::array<float, 2>;
    PerformanceData data;
    data.SetGpCmd(pfs::GPID{0}, At(1), TT{1, 2}, true);
    data.SetGpCmd(pfs::GPID{2}, At(3), TT{5, 6}, false);
    EXPECT_THROW(data.SetGpCmd(pfs::GPID{3}, At(1), TT{1, 2}, true), std::runtime_error);
    const auto topic = data.GetDataTopic();
    EXPECT_THAT(topic.gp_cmd, ElementsAre(FloatVectorTT{1, 2}, FloatVectorTT{0, 0}, FloatVectorTT{5, 6}));
    EXPECT_FALSE(topic.gp_cmd_valid);  // one flag for all
    data.SetTipTiltError(1, 2);
    data.SetCentroidError(3, 4);
    EXPECT_EQ(data.GetWavefrontMetricData().tip_tilt_error, FloatVectorTT{});

    FsInputFlags flags{true};
    flags.back() = true;
    data.UpdateFSInput(At(5), flags);
    EXPECT_THAT(data.GetFSTelemetryData().fs_input_counts, ElementsAre(1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1));
}

TEST(RuntimeMonitor, ResetZeroesStreamsAndPerformanceAndSparesControlState) {
    RuntimeMonitor& monitor = RuntimeMonitor::CreateInstance(gim::Config{});
    monitor.m_ms_output_state->RecordSentSample(At(5));
    RuntimeMonitor::GetPerformanceData().SetCentroidError(1, 2);
    RuntimeMonitor::GetStateData().SetPrimaryGP(2);
    monitor.m_command_counts->clock_steps = 3;
    monitor.Reset();
    EXPECT_EQ(monitor.m_command_counts->clock_steps, 0U);
    EXPECT_EQ(monitor.m_ms_output_state->GetTopicData().sample_count, 0U);
    EXPECT_FALSE(RuntimeMonitor::GetPerformanceData().GetWavefrontMetricData().wavefront_valid);
    EXPECT_EQ(RuntimeMonitor::GetStateData().GetTopicData().primary_gp, 2);
}

TEST(RuntimeMonitor, EnablesTheStatisticsThatTheConfigurationNamesToTheNanosecond) {
    const RuntimeMonitor& monitor = RuntimeMonitor::CreateInstance(gim::Config{});
    const auto enable = [](const std::string& entries) {
        RuntimeMonitor::EnableStatistics(vosk::test::NodeOf("cfg: {statistics: " + entries + "}")["cfg"]);
    };
    enable("{wfs_gp2: 1333333 ns}");
    for (const auto& statistics : {monitor.m_wfs_gp2_statistics, monitor.m_img_gp2_statistics})
        for (std::int64_t i = 0; i <= 1000; ++i) statistics->Update(At(i * 1'333'333), At(i * 1'333'333));
    EXPECT_THAT(Figures(*monitor.m_wfs_gp2_statistics), ElementsAre("1000", "0", "0", "0", "0", "0", "0"));
    EXPECT_THAT(Figures(*monitor.m_img_gp2_statistics), ElementsAre());
    for (const char* entries : {"{m7: 2 ms}", "{m4: 0 ms}"})
        EXPECT_THROW(enable(entries), std::runtime_error);
}

}  // namespace
}  // namespace vosk::lumo
