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
#include <sstream>

namespace vosk::common {
namespace {

using namespace testing;

// The lines of the text, without time and level.
std::vector<std::string> MessagesIn(const std::string& text) {
    std::istringstream in{text};
    std::vector<std::string> messages;
    for (std::string line; std::getline(in, line);) messages.push_back(line.substr(line.find("vosk: ") + 6));
    return messages;
}

class LoggerTest : public testing::Test {
protected:
    ~LoggerTest() override { SetupLogging(log4cplus::WARN_LOG_LEVEL); }

    std::vector<std::string> Messages() const {
        FlushLog();
        return MessagesIn(m_directory.Content("log"));
    }
    const test::TempDir m_directory;
    const std::string m_file = m_directory / "log";
    const std::uint64_t m_dropped_before = DroppedLogLines();
};

TEST_F(LoggerTest, WritesTimeLevelLoggerAndTextFromTheLevelOn) {
    SetupLogging(log4cplus::DEBUG_LOG_LEVEL, m_file);
    LogTrace("not this");
    LogDebug("M4Input: {}", 7);
    log4cplus::Logger::getInstance("pktwire").forcedLog(log4cplus::WARN_LOG_LEVEL, "from below");
    FlushLog();
    const std::string time = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{6} ";
    EXPECT_THAT(m_directory.Content("log"),
                MatchesRegex(time + "DEBUG vosk: M4Input: 7\n" + time + "WARN  pktwire: from below\n"));
}

TEST_F(LoggerTest, KeepsAFileThatWasRenamedUntilItIsReopenedOrAnotherCanBeOpened) {
    SetupLogging(log4cplus::INFO_LOG_LEVEL, m_file);
    LogInfo("before");
    FlushLog();
    std::filesystem::rename(m_file, m_directory / "log.1");
    EXPECT_THROW(SetupLogging(log4cplus::INFO_LOG_LEVEL, "/no/such/directory/log"), std::runtime_error);
    LogInfo("between");
    ReopenLog();
    LogInfo("after");
    EXPECT_THAT(Messages(), ElementsAre("after"));
    EXPECT_THAT(MessagesIn(m_directory.Content("log.1")), ElementsAre("before", "between"));
}

TEST(RepeatedLines, AreWrittenOnceASecondWithTheirCount) {
    using std::chrono::milliseconds;
    RepeatedLines lines;
    const auto start = std::chrono::steady_clock::now();
    const auto admits = [&](const std::string& text, int after,
                            log4cplus::LogLevel level = log4cplus::WARN_LOG_LEVEL) {
        return lines.Admit({{}, level, "vosk", text}, start + milliseconds{after});
    };
    const auto counts = [&](int after) {
        std::string taken;
        lines.TakeCounts(start + milliseconds{after}, [&](const LogLine& line, auto count) {
            taken += fmt::format("{}: {}", line.text, count);
        });
        return taken;
    };
    EXPECT_TRUE(admits("no answer for 17, 2.5e-3 s late", 0));
    EXPECT_FALSE(admits("no answer for 18, 1e+2 s late", 10));
    EXPECT_FALSE(admits("no answer for 19, -3 s late", 20));
    EXPECT_TRUE(admits("no answer from GP1", 20));
    EXPECT_TRUE(admits("no answer from GP2", 20));
    for (const char* text : {"cycle 1", "cycle 2"}) EXPECT_TRUE(admits(text, 20, log4cplus::INFO_LOG_LEVEL));
    EXPECT_EQ(counts(999), "");
    EXPECT_EQ(counts(1100), "no answer for 19, -3 s late: 2");
    EXPECT_FALSE(admits("no answer for 20, 1 s late", 1200));
    EXPECT_EQ(counts(2099), "");
    EXPECT_EQ(counts(2100), "no answer for 20, 1 s late: 1");
    EXPECT_EQ(counts(3100), "");
    EXPECT_TRUE(admits("no answer for 21, 1 s late", 3200));
}

TEST_F(LoggerTest, KeepsTheOrderOfEachThread) {
    SetupLogging(log4cplus::INFO_LOG_LEVEL, m_file);
    const auto write = [](int thread) {
        for (int i = 0; i < 500; ++i) LogInfo("{} {}", thread, i);
    };
    { const std::jthread threads[] = {std::jthread{write, 0}, std::jthread{write, 1}}; }
    int written[2]{};
    for (const std::string& line : Messages()) {
        const int thread = line.at(0) - '0';
        EXPECT_EQ(line, fmt::format("{} {}", thread, written[thread]++));
    }
    EXPECT_THAT(written, Each(500));
}

// A pipe that nobody reads stands for a blocked terminal or a hanging disk. When its reader wakes up, every
// line comes, in order, or is counted in a line as lost.
TEST_F(LoggerTest, WriterGoesOnAndLinesAreCountedWhenTheOutputBlocks) {
    constexpr std::uint64_t LINES = 30'000;
    const std::string path = m_directory / "pipe";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_THROW(SetupLogging(log4cplus::INFO_LOG_LEVEL, path), std::runtime_error);
    const int pipe = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    SetupLogging(log4cplus::INFO_LOG_LEVEL, path);
    for (std::uint64_t i = 1; i <= LINES; ++i) LogInfo("{}", i);
    const auto dropped = DroppedLogLines() - m_dropped_before;
    EXPECT_GT(dropped, 0U);

    std::uint64_t received = 0;
    std::uint64_t lost = 0;
    std::uint64_t last = 0;
    std::string text;
    EXPECT_TRUE(test::Eventually([&] {
        std::string more(65536, '\0');
        const ssize_t got = ::read(pipe, more.data(), more.size());
        text.append(more, 0, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        const std::size_t whole_lines = text.rfind('\n') + 1;
        for (const std::string& message : MessagesIn(text.substr(0, whole_lines))) {
            const std::uint64_t number = std::stoull(message);
            if (message.find(" log lines lost") != std::string::npos) {
                lost += number;
                continue;
            }
            EXPECT_GT(number, std::exchange(last, number));
            ++received;
        }
        text.erase(0, whole_lines);
        return received + lost >= LINES;
    }));
    EXPECT_EQ(lost, dropped);
    EXPECT_EQ(received, LINES - dropped);
    // Lines that the system refuses are lost as well.
    SetupLogging(log4cplus::INFO_LOG_LEVEL, "/dev/full");
    LogInfo("lost");
    FlushLog();
    SetupLogging(log4cplus::INFO_LOG_LEVEL, m_file);
    LogInfo("here again");
    EXPECT_THAT(Messages(), UnorderedElementsAre(StartsWith("1 log lines lost"), "here again"));
    ::close(pipe);
}

TEST_F(LoggerTest, LosesNothingAtExit) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string file = TempDir() + "vosk_log_exit";  // one for the test and its child
    std::filesystem::remove(file);
    EXPECT_EXIT(
        {
            SetupLogging(log4cplus::INFO_LOG_LEVEL, file);
            LimitRepeatedLines();
            for (int i = 0; i < 1000; ++i) LogInfo("{}", i);
            for (int i = 0; i < 3; ++i) LogWarn("late by {}", i);
            std::exit(0);
        },
        ExitedWithCode(0), "");
    std::filesystem::rename(file, m_file);
    EXPECT_THAT(Messages(), AllOf(SizeIs(1002), Contains("late by 2 (2 times in a second)")));
}

// What a paused pager does to a host that is told to end. More than a pipe holds, so that some are lost.
TEST_F(LoggerTest, OutputThatNobodyReadsDoesNotKeepTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto end_with = [](bool to_stderr) {
        ::alarm(60);
        int ends[2];
        if (::pipe(ends) != 0) std::exit(2);
        if (to_stderr) ::dup2(ends[1], STDERR_FILENO);
        SetupLogging(log4cplus::INFO_LOG_LEVEL,
                     to_stderr ? std::string{} : "/proc/self/fd/" + std::to_string(ends[1]));
        for (int i = 0; i < 8000; ++i) LogInfo("{}", i);
        FlushLog();
        LogInfo("this goes nowhere either");
        std::exit(DroppedLogLines() > 0 ? 0 : 3);
    };
    for (const bool to_stderr : {false, true}) EXPECT_EXIT(end_with(to_stderr), ExitedWithCode(0), "");
}

}  // namespace
}  // namespace vosk::common
