#include "../src/repeatedLines.hpp"

#include <vosk/common/logSetup.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>

namespace vosk::common {
namespace {

class LoggerTest : public testing::Test {
protected:
    ~LoggerTest() override { SetupLogging(log4cplus::WARN_LOG_LEVEL); }

    std::vector<std::string> FileLines() const {
        std::istringstream in{m_directory.Content("log")};
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

    const test::TempDir m_directory;
    const std::string m_file = m_directory / "log";
};

TEST_F(LoggerTest, WritesTimeLevelLoggerAndTextFromTheLevelOn) {
    SetupLogging(log4cplus::DEBUG_LOG_LEVEL, m_file);
    LogTrace("not this");
    LogDebug("M4Input: {}", 7);
    log4cplus::Logger::getInstance("pktwire").forcedLog(log4cplus::WARN_LOG_LEVEL, "from below");
    FlushLog();
    const auto lines = FileLines();
    ASSERT_EQ(lines.size(), 2U);
    const std::string time = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{6} ";
    EXPECT_THAT(lines[0], testing::MatchesRegex(time + "DEBUG vosk: M4Input: 7"));
    EXPECT_THAT(lines[1], testing::MatchesRegex(time + "WARN  pktwire: from below"));
    EXPECT_EQ(GetLogger().getLogLevel(), log4cplus::DEBUG_LOG_LEVEL);
}

TEST_F(LoggerTest, GoesOnInANewFileWhenTheOldOneWasRenamed) {
    SetupLogging(log4cplus::INFO_LOG_LEVEL, m_file);
    LogInfo("before");
    FlushLog();
    std::filesystem::rename(m_file, m_directory / "log.1");
    LogInfo("between");
    ReopenLog();
    LogInfo("after");
    FlushLog();
    EXPECT_THAT(m_directory.Content("log.1"), testing::HasSubstr("between"));
    EXPECT_THAT(FileLines(), testing::ElementsAre(testing::HasSubstr("after")));
}

TEST(RepeatedLines, AreWrittenOnceASecondWithTheirCount) {
    using namespace std::chrono_literals;
    RepeatedLines lines;
    const auto start = std::chrono::steady_clock::now();
    const auto admits = [&](const std::string& text, auto after,
                            log4cplus::LogLevel level = log4cplus::WARN_LOG_LEVEL) {
        return lines.Admit({{}, level, "vosk", text}, start + after);
    };
    const auto counts = [&](auto after) {
        std::vector<std::pair<std::string, std::uint64_t>> taken;
        lines.TakeCounts(start + after,
                         [&](const LogLine& line, auto count) { taken.emplace_back(line.text, count); });
        return taken;
    };
    EXPECT_TRUE(admits("no answer for 17, 2.5e-3 s late", 0ms));
    EXPECT_FALSE(admits("no answer for 18, 1e+2 s late", 10ms));
    EXPECT_FALSE(admits("no answer for 19, -3 s late", 20ms));
    EXPECT_TRUE(admits("no answer from GP1", 20ms));
    EXPECT_TRUE(admits("no answer from GP2", 20ms));
    EXPECT_TRUE(admits("cycle 1", 20ms, log4cplus::INFO_LOG_LEVEL));
    EXPECT_TRUE(admits("cycle 2", 20ms, log4cplus::INFO_LOG_LEVEL));
    EXPECT_THAT(counts(999ms), testing::IsEmpty());
    EXPECT_THAT(counts(1100ms), testing::ElementsAre(testing::Pair("no answer for 19, -3 s late", 2)));
    EXPECT_FALSE(admits("no answer for 20, 1 s late", 1200ms));
    EXPECT_THAT(counts(2100ms), testing::ElementsAre(testing::Pair("no answer for 20, 1 s late", 1)));
    EXPECT_THAT(counts(3100ms), testing::IsEmpty());
    EXPECT_TRUE(admits("no answer for 21, 1 s late", 3200ms));
}

TEST_F(LoggerTest, KeepsTheOrderOfEachThread) {
    constexpr int LINES = 500;
    SetupLogging(log4cplus::INFO_LOG_LEVEL, m_file);
    const auto dropped_before = DroppedLogLines();
    const auto write = [](int thread) {
        for (int i = 0; i < LINES; ++i) LogInfo("{} {}", thread, i);
    };
    std::thread a{write, 0};
    std::thread b{write, 1};
    a.join();
    b.join();
    FlushLog();
    EXPECT_EQ(DroppedLogLines(), dropped_before);
    int next[2] = {0, 0};
    for (const std::string& line : FileLines()) {
        std::istringstream text{line.substr(line.find("vosk: ") + 6)};
        int thread = 0;
        int number = -1;
        text >> thread >> number;
        EXPECT_EQ(number, next[thread]++);
    }
    EXPECT_EQ(next[0], LINES);
    EXPECT_EQ(next[1], LINES);
}

TEST_F(LoggerTest, RefusesAFileThatCannotBeOpenedAndStaysWhereItWas) {
    SetupLogging(log4cplus::INFO_LOG_LEVEL, m_file);
    EXPECT_THROW(SetupLogging(log4cplus::INFO_LOG_LEVEL, "/no/such/directory/log"), std::runtime_error);
    const std::string pipe = m_directory / "pipe";  // that nobody reads
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_THROW(SetupLogging(log4cplus::INFO_LOG_LEVEL, pipe), std::runtime_error);
    LogInfo("still here");
    FlushLog();
    EXPECT_EQ(FileLines().size(), 1U);
}

// A pipe that nobody reads stands for a blocked terminal or a hanging disk.
TEST_F(LoggerTest, WriterGoesOnAndLinesAreCountedWhenTheOutputBlocks) {
    constexpr int LINES = 30'000;
    ASSERT_EQ(::mkfifo(m_file.c_str(), 0600), 0);
    const int pipe = ::open(m_file.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(pipe, 0);
    SetupLogging(log4cplus::INFO_LOG_LEVEL, m_file);
    const auto dropped_before = DroppedLogLines();
    for (int i = 0; i < LINES; ++i) LogInfo("{}", i);
    const auto dropped = DroppedLogLines() - dropped_before;
    EXPECT_GT(dropped, 0U);

    // The reader wakes up: every line comes, in order, or is told of as lost.
    constexpr std::string_view LOST = " log lines lost";
    std::uint64_t received = 0;
    std::uint64_t told_lost = 0;
    int last = -1;
    std::string text;
    const auto give_up = std::chrono::steady_clock::now() + test::PATIENCE;
    while (received + told_lost < LINES && std::chrono::steady_clock::now() < give_up) {
        char buffer[65536];
        const ssize_t got = ::read(pipe, buffer, sizeof(buffer));
        if (got > 0) text.append(buffer, static_cast<std::size_t>(got));
        for (auto end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
            const std::string message = text.substr(0, end).substr(text.find("vosk: ") + 6);
            text.erase(0, end + 1);
            if (message.find(LOST) != std::string::npos) {
                told_lost += std::stoull(message);
                continue;
            }
            const int number = std::stoi(message);
            EXPECT_GT(number, last);
            last = number;
            ++received;
        }
    }
    EXPECT_EQ(told_lost, dropped);
    EXPECT_EQ(received, LINES - dropped);
    SetupLogging(log4cplus::WARN_LOG_LEVEL);
    ::close(pipe);
}

TEST_F(LoggerTest, CountsLinesThatCouldNotBeWrittenAndTellsOfThem) {
    SetupLogging(log4cplus::INFO_LOG_LEVEL, "/dev/full");
    const auto dropped_before = DroppedLogLines();
    LogInfo("lost");
    FlushLog();
    EXPECT_EQ(DroppedLogLines(), dropped_before + 1);
    SetupLogging(log4cplus::INFO_LOG_LEVEL, m_file);
    LogInfo("here again");
    FlushLog();
    EXPECT_THAT(FileLines(), testing::UnorderedElementsAre(testing::HasSubstr("1 log lines lost"),
                                                           testing::HasSubstr("here again")));
}

TEST_F(LoggerTest, LosesNothingAtExit) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const std::string file = testing::TempDir() + "vosk_log_exit";
    std::filesystem::remove(file);
    EXPECT_EXIT(
        {
            SetupLogging(log4cplus::INFO_LOG_LEVEL, file);
            LimitRepeatedLines();
            for (int i = 0; i < 1000; ++i) LogInfo("{}", i);
            for (int i = 0; i < 3; ++i) LogWarn("late by {}", i);
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
    std::ifstream in{file};
    const std::string text{std::istreambuf_iterator<char>{in}, {}};
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1002);
    EXPECT_THAT(text, testing::EndsWith("late by 2 (2 times in a second)\n"));
    std::filesystem::remove(file);
}

// What a paused pager does to a host that is told to end. More than a pipe holds, so that some are lost.
TEST_F(LoggerTest, OutputThatNobodyReadsDoesNotKeepTheProcess) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    for (const bool to_stderr : {false, true}) {
        EXPECT_EXIT(
            {
                ::alarm(60);
                int ends[2];
                if (::pipe(ends) != 0) std::exit(2);
                if (to_stderr) ::dup2(ends[1], STDERR_FILENO);
                SetupLogging(log4cplus::INFO_LOG_LEVEL,
                             to_stderr ? std::string{} : "/proc/self/fd/" + std::to_string(ends[1]));
                for (int i = 0; i < 8000; ++i) LogInfo("{}", i);
                FlushLog();
                const bool lost = DroppedLogLines() > 0;
                LogInfo("this goes nowhere either");
                std::exit(lost ? 0 : 3);
            },
            testing::ExitedWithCode(0), "");
    }
}

}  // namespace
}  // namespace vosk::common
