#pragma once

// Holds back a warning or an error that a loop logs again and again. Lines are of one kind where their texts
// differ in numbers only. The first of a kind is written at once, those that follow within a second are
// counted, and the latest of them is written with their number when the second is over. For the thread that
// writes.

#include <log4cplus/helpers/timehelper.h>
#include <log4cplus/loglevel.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>

namespace vosk::common {

struct LogLine {
    log4cplus::helpers::Time time;
    log4cplus::LogLevel level = log4cplus::NOT_SET_LOG_LEVEL;
    std::string logger;
    std::string text;
};

class RepeatedLines {
public:
    using time_point = std::chrono::steady_clock::time_point;

    // Whether the line is to be written; one that is not is counted.
    bool Admit(const LogLine& line, time_point now);

    // Calls `write` with the latest line of each kind whose second is over, and how many it stands for.
    void TakeCounts(time_point now, const std::function<void(const LogLine&, std::uint64_t)>& write);

private:
    struct Kind {
        time_point due;
        std::uint64_t count = 0;
        LogLine latest;
    };
    std::unordered_map<std::size_t, Kind> m_kinds;  // by a hash of the text without its numbers
};

}  // namespace vosk::common
