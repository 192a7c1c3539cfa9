#include <lumolib/statistics.hpp>

#include <vosk/test/logCapture.hpp>
#include <vosk/test/support.hpp>

#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using vosk::lumo::Statistics;
using vosk::lumo::StatisticsBuffered;
using vosk::lumo::StatisticsDuration;
using vosk::test::At;
using vosk::test::LogCapture;

namespace {

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

    statistics.Print();  // a new interval, without data yet
    EXPECT_EQ(log.Lines().size(), 7U);
    statistics.Update(At(90'001), At(90'001));
    statistics.Print();
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
    std::array<double, 3> values{};
    const auto read = [&] {
        values.fill(-1);
        duration.GetValues(values[0], values[1], values[2]);  // largest, mean, standard deviation
        return values;
    };
    EXPECT_EQ(read(), (std::array{-1.0, -1.0, -1.0}));  // left alone without data
    duration.Update(900'000ns);
    EXPECT_EQ(read(), (std::array{0.0, 0.0, 0.0}));
    for (auto value : {900'000ns, 10'999ns, 20'000ns, 30'500ns}) duration.Update(value);
    EXPECT_EQ(read(), (std::array{30.0, 20.0, 9.0}));   // mean 61499 / 3 = 20499 ns, deviation 9760 ns
    EXPECT_EQ(read(), (std::array{-1.0, -1.0, -1.0}));  // reading resets
}

}  // namespace
