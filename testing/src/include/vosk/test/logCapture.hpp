#pragma once

// Takes every log line of every logger, at every level, instead of the usual output while it
// lives. Synchronous: a line stands in Lines() when the call that wrote it has returned. One at a time.

#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>
#include <vosk/common/logger.hpp>

namespace vosk::test {

class LogCapture {
public:
    struct Line {
        log4cplus::LogLevel level;
        std::string text;
        bool operator==(const Line&) const = default;
    };

    LogCapture() : m_appenders{m_root.getAllAppenders()} {
        m_root.removeAllAppenders();
        m_root.addAppender(log4cplus::SharedAppenderPtr{m_sink.get()});
        for (Level& level : m_levels) level.logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
    }

    ~LogCapture() {
        for (Level& level : m_levels) level.logger.setLogLevel(level.before);
        m_root.removeAllAppenders();
        for (const auto& appender : m_appenders) m_root.addAppender(appender);
    }

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Line> Lines() const { return m_sink->Lines(); }

    // How often the text was logged at the level.
    auto Count(log4cplus::LogLevel level, const std::string& text) const {
        const auto lines = Lines();
        return std::count(lines.begin(), lines.end(), Line{level, text});
    }

    bool Has(log4cplus::LogLevel level, const std::string& text) const { return Count(level, text) > 0; }

    // The texts that hold `part`, of the level or of any.
    std::vector<std::string> Texts(std::string_view part,
                                   std::optional<log4cplus::LogLevel> level = std::nullopt) const {
        std::vector<std::string> texts;
        for (const Line& line : Lines()) {
            if (line.level == level.value_or(line.level) && line.text.find(part) != std::string::npos)
                texts.push_back(line.text);
        }
        return texts;
    }

private:
    class Sink : public log4cplus::Appender {
    public:
        ~Sink() override { destructorImpl(); }
        void close() override { closed = true; }

        std::vector<Line> Lines() const {
            const std::lock_guard lock{m_mutex};
            return m_lines;
        }

    private:
        void append(const log4cplus::spi::InternalLoggingEvent& event) override {
            const std::lock_guard lock{m_mutex};
            m_lines.push_back({event.getLogLevel(), event.getMessage()});
        }

        mutable std::mutex m_mutex;
        std::vector<Line> m_lines;  // guarded by m_mutex
    };

    struct Level {
        log4cplus::Logger logger;
        log4cplus::LogLevel before = logger.getLogLevel();
    };

    // First, so that the usual output is set up and can be put back.
    Level m_levels[2]{{common::GetLogger()}, {log4cplus::Logger::getRoot()}};
    log4cplus::Logger m_root = log4cplus::Logger::getRoot();
    log4cplus::SharedAppenderPtrList m_appenders;
    log4cplus::helpers::SharedObjectPtr<Sink> m_sink{new Sink};  // log4cplus counts its references
};

}  // namespace vosk::test
