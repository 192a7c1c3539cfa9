#pragma once

// The log of the worker threads: one log4cplus logger behind an asynchronous, bounded buffer, so that a
// thread never waits for a disk or a terminal. The helpers test the level before they format.
// All may be called from any thread.

#include <fmt/format.h>
#include <log4cplus/logger.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace vosk::common {

log4cplus::Logger& GetLogger();

// Writes the text at the level, which the caller has tested.
void WriteLog(log4cplus::LogLevel level, const std::string& text);

template <class... Args>
void Log(log4cplus::LogLevel level, fmt::format_string<Args...> format, Args&&... args) {
    if (GetLogger().isEnabledFor(level)) WriteLog(level, fmt::format(format, std::forward<Args>(args)...));
}

template <class... Args>
void LogTrace(fmt::format_string<Args...> format, Args&&... args) {
    Log(log4cplus::TRACE_LOG_LEVEL, format, std::forward<Args>(args)...);
}

template <class... Args>
void LogDebug(fmt::format_string<Args...> format, Args&&... args) {
    Log(log4cplus::DEBUG_LOG_LEVEL, format, std::forward<Args>(args)...);
}

template <class... Args>
void LogInfo(fmt::format_string<Args...> format, Args&&... args) {
    Log(log4cplus::INFO_LOG_LEVEL, format, std::forward<Args>(args)...);
}

template <class... Args>
void LogWarn(fmt::format_string<Args...> format, Args&&... args) {
    Log(log4cplus::WARN_LOG_LEVEL, format, std::forward<Args>(args)...);
}

template <class... Args>
void LogError(fmt::format_string<Args...> format, Args&&... args) {
    Log(log4cplus::ERROR_LOG_LEVEL, format, std::forward<Args>(args)...);
}

// An exception whose text is in the log already; the catcher does not log it again.
struct Logged {};

// Throws the text as Error and Logged: it is in the log, maybe in other words.
template <class Error = std::runtime_error>
[[noreturn]] void ThrowLogged(const std::string& text) {
    struct LoggedError : Error, Logged {
        using Error::Error;
    };
    throw LoggedError{text};
}

// For set-up failures, which are both logged at ERROR and thrown.
template <class Error = std::runtime_error>
[[noreturn]] void LogAndThrow(const std::string& text) {
    WriteLog(log4cplus::ERROR_LOG_LEVEL, text);
    ThrowLogged<Error>(text);
}

}  // namespace vosk::common
