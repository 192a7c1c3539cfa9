#pragma once

// The answer to "status": one line of JSON.

#include "eventList.hpp"

#include <lumolib/streamState.hpp>

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace vosk::host {

struct Status {
    ControlState control;
    std::vector<lumo::StreamTopic> streams;
    std::uint64_t log_dropped = 0;
    std::deque<Event> events;
};

// Periods in seconds, rates in hertz; null where there is none, or none that JSON can write.
std::string ToJson(const Status& status);

}  // namespace vosk::host
