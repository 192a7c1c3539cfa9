#include <lumolib/statistics.hpp>

#include <vosk/common/testing/logCapture.hpp>

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using vosk::common::LogCapture;
using vosk::lumo::Statistics;
using vosk::lumo::StatisticsBuffered;
using vosk::lumo::StatisticsDuration;
using vosk::lumo::time_point;

namespace {

time_point At(std::int64_t count) {
    return time_point{std::chrono::nanoseconds{count}};
}

bool Traced(const LogCapture& log, const std::string& text) {
    return log.Has(log4cplus::TRACE_LOG_LEVEL, text);
}

TEST(Statistics, MeasuresDeviationFromTheGridOfTheFirstSample) {
    LogCapture log;
    Statistics statistics{7};
    statistics.Enable(1000ns);
    statistics.Update(At(0), At(500));
    statistics.Update(At(1000), At(1500));
    statistics.Update(At(2100), At(2500));
    statistics.Update(At(2900), At(3510));
    statistics.Print();

    EXPECT_TRUE(Traced(log, "Stream 7: num_samples = 3"));
    EXPECT_TRUE(Traced(log, "  Jitter sent: max = 0.1 [us]"));
    EXPECT_TRUE(Traced(log, "  Jitter sent: mean = 0.066 [us]"));
    EXPECT_TRUE(Traced(log, "  Jitter sent: stddev = 0.057 [us]"));
    EXPECT_TRUE(Traced(log, "  Jitter received: max = 0.01 [us]"));
    EXPECT_TRUE(Traced(log, "  Jitter received: mean = 0.003 [us]"));
    EXPECT_EQ(log.Lines().size(), 7U);
}

TEST(Statistics, PrintOpensANewIntervalAndIsSilentWithoutOne) {
    LogCapture log;
    Statistics statistics{1};
    statistics.Enable(10us);
    statistics.Print();
    EXPECT_TRUE(log.Lines().empty());

    statistics.Update(At(0), At(0));
    statistics.Update(At(90'000), At(90'000));
    statistics.Print();
    statistics.Update(At(90'001), At(90'001));
    statistics.Update(At(100'001), At(100'001));
    statistics.Print();
    EXPECT_TRUE(Traced(log, "  Jitter sent: max = 80 [us]"));
    EXPECT_TRUE(Traced(log, "  Jitter sent: max = 0 [us]"));
}

TEST(Statistics, DoesNothingUntilEnabledExceptToCountLateFrames) {
    LogCapture log;
    Statistics statistics{3};
    statistics.Update(At(0), At(0));
    statistics.Print();
    EXPECT_TRUE(log.Lines().empty());
    EXPECT_EQ(statistics.GetLateCount(), 0U);
    statistics.RecordLate();
    statistics.RecordLate();
    EXPECT_EQ(statistics.GetLateCount(), 2U);
    EXPECT_THROW(statistics.Enable(0ns), std::invalid_argument);
    EXPECT_THROW(statistics.Enable(-1ns), std::invalid_argument);
}

TEST(Statistics, StandardDeviationIsThatOfAbsoluteDeviationsAndWrapsAsUnsigned) {
    const Statistics::Record worked{.sum = 200, .sum_squares = 20'000, .max = 100};
    EXPECT_EQ(Statistics::GetMean(3, worked), 66U);
    EXPECT_EQ(Statistics::GetStdDev(3, worked), 57);
    EXPECT_EQ(Statistics::GetMean(0, worked), 0U);
    EXPECT_EQ(Statistics::GetStdDev(0, worked), 0);
    EXPECT_EQ(Statistics::GetStdDev(1, worked), 0);

    // sum * sum = 2^64 is 0 in 64 bits, which leaves sum_squares alone.
    const Statistics::Record wrapped{.sum = 1ULL << 32U, .sum_squares = 1ULL << 40U};
    EXPECT_EQ(Statistics::GetStdDev(2, wrapped), 1 << 20);
}

TEST(Statistics, SurvivesTimesAtBothEndsOfTheClock) {
    LogCapture log;
    Statistics statistics{1};
    statistics.Enable(std::chrono::nanoseconds::max());
    const auto lowest = At(std::numeric_limits<std::int64_t>::min());
    const auto highest = At(std::numeric_limits<std::int64_t>::max());
    statistics.Update(lowest, highest);
    for (int i = 0; i < 3; ++i) statistics.Update(highest, lowest);
    statistics.Print();
    EXPECT_TRUE(Traced(log, "Stream 1: num_samples = 3"));
}

TEST(StatisticsBuffered, TheLaterCallCompletesAPairWithTheNewestTimes) {
    LogCapture log;
    StatisticsBuffered statistics{10};
    statistics.Enable(1us);
    statistics.UpdateTsSent(At(0));
    statistics.UpdateTsReceived(At(100));  // the anchor
    statistics.UpdateTsSent(At(400));      // lost: its answer never came
    statistics.UpdateTsSent(At(1005));
    statistics.UpdateTsReceived(At(1107));
    statistics.UpdateTsReceived(At(2100));  // the other order
    statistics.UpdateTsSent(At(2001));
    statistics.Print();
    EXPECT_TRUE(Traced(log, "Stream 10: num_samples = 2"));
    EXPECT_TRUE(Traced(log, "  Jitter sent: max = 0.005 [us]"));
    EXPECT_TRUE(Traced(log, "  Jitter received: max = 0.007 [us]"));

    statistics.UpdateTsSent(At(5000));
    const auto lines = log.Lines().size();
    statistics.Print();
    EXPECT_EQ(log.Lines().size(), lines);  // one side alone is no sample
}

std::vector<unsigned long> SampleCounts(const LogCapture& log) {
    const std::string start = "Stream 10: num_samples = ";
    std::vector<unsigned long> counts;
    for (const auto& line : log.Lines()) {
        if (line.text.starts_with(start)) counts.push_back(std::stoul(line.text.substr(start.size())));
    }
    return counts;
}

TEST(StatisticsBuffered, TwoThreadsSupplyTheTwoTimesWhileAThirdPrints) {
    constexpr unsigned long TIMES = 20'000;
    LogCapture log;
    StatisticsBuffered statistics{10};
    statistics.Enable(1us);
    std::thread sender([&] {
        for (unsigned long i = 0; i < TIMES; ++i) statistics.UpdateTsSent(At(0));
    });
    std::thread receiver([&] {
        for (unsigned long i = 0; i < TIMES; ++i) statistics.UpdateTsReceived(At(0));
    });
    for (int i = 0; i < 100; ++i) statistics.Print();
    sender.join();
    receiver.join();
    statistics.Print();
    unsigned long pairs = 0;
    for (const unsigned long samples : SampleCounts(log)) pairs += samples + 1;  // the anchor isn't counted
    EXPECT_GE(pairs, 1U);
    EXPECT_LE(pairs, TIMES);

    // Whichever side was left over: each round completes one pair.
    for (int i = 0; i < 3; ++i) {
        statistics.UpdateTsSent(At(0));
        statistics.UpdateTsReceived(At(0));
    }
    statistics.Print();
    EXPECT_EQ(SampleCounts(log).back(), 2U);
}

TEST(StatisticsDuration, GivesWholeMicrosecondsWithoutTheValueThatOpenedTheInterval) {
    StatisticsDuration duration;
    for (auto value : {900'000ns, 10'999ns, 20'000ns, 30'500ns}) duration.Update(value);
    double max = -1;
    double mean = -1;
    double stddev = -1;
    duration.GetValues(max, mean, stddev);
    EXPECT_EQ(max, 30.0);
    EXPECT_EQ(mean, 20.0);   // 61499 / 3 = 20499 ns
    EXPECT_EQ(stddev, 9.0);  // 9760 ns
}

TEST(StatisticsDuration, ReadingResetsAndWithoutDataLeavesTheArguments) {
    StatisticsDuration duration;
    duration.Update(5ms);
    double max = -1;
    double mean = -1;
    double stddev = -1;
    duration.GetValues(max, mean, stddev);
    EXPECT_EQ(max, 0.0);
    EXPECT_EQ(mean, 0.0);
    EXPECT_EQ(stddev, 0.0);

    max = mean = stddev = -1;
    duration.GetValues(max, mean, stddev);
    EXPECT_EQ(max, -1.0);
    EXPECT_EQ(mean, -1.0);
    EXPECT_EQ(stddev, -1.0);
}

}  // namespace
