#include <vosk/common/logger.hpp>

#include <fcntl.h>
#include <unistd.h>
#include <vosk/common/logSetup.hpp>

#include "asyncSink.hpp"

namespace vosk::common {

namespace {

// Stands behind the root logger from the first use of the log until the statics go.
class Output {
public:
    Output() {
        log4cplus::Logger::getRoot().addAppender(log4cplus::SharedAppenderPtr{m_sink.get()});
        SetLevel(log4cplus::WARN_LOG_LEVEL);
    }
    ~Output() { m_sink->Stop(); }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    AsyncSink& Sink() { return *m_sink; }

    // On the worker threads' logger as well as on the root: callers ask it for its own level.
    void SetLevel(log4cplus::LogLevel level) {
        log4cplus::Logger::getRoot().setLogLevel(level);
        log4cplus::Logger::getInstance("vosk").setLogLevel(level);
    }

private:
    log4cplus::helpers::SharedObjectPtr<AsyncSink> m_sink{new AsyncSink};  // log4cplus counts its references
};

Output& TheOutput() {
    static Output output;
    return output;
}

log4cplus::Logger MakeLogger() {
    TheOutput();
    return log4cplus::Logger::getInstance("vosk");
}

}  // namespace

log4cplus::Logger& GetLogger() {
    // Never destroyed: a static that outlives this one may still log while it goes.
    static log4cplus::Logger& logger = *new log4cplus::Logger{MakeLogger()};
    return logger;
}

void WriteLog(log4cplus::LogLevel level, const std::string& text) {
    GetLogger().forcedLog(level, text);
}

void SetupLogging(log4cplus::LogLevel level, const std::string& file) {
    TheOutput().Sink().WriteTo(file);
    TheOutput().SetLevel(level);
}

void OpenStandardDescriptors() {
    const auto is_open = [](int fd) { return ::fcntl(fd, F_GETFD) != -1; };
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (is_open(fd)) continue;
        const int other = fd == STDOUT_FILENO ? STDERR_FILENO : STDOUT_FILENO;
        [[maybe_unused]] const int opened =
            fd != STDIN_FILENO && is_open(other) ? ::dup(other) : ::open("/dev/null", O_RDWR);
    }
}

void ReopenLog() {
    TheOutput().Sink().Reopen();
}

void LimitRepeatedLines() noexcept {
    TheOutput().Sink().LimitRepeated();
}

void FlushLog() {
    TheOutput().Sink().Flush();
}

std::uint64_t DroppedLogLines() noexcept {
    return TheOutput().Sink().Dropped();
}

}  // namespace vosk::common
