#pragma once

// The text form of times and durations in log lines. Safe on several threads at once.

#include <atomclk/atomClk.hpp>

#include <chrono>
#include <string>

namespace vosk::lumo {

// Time of day, at or after the epoch, as if the count were UTC, "12:34:56.000007": no date, no leap-second
// correction.
std::string GetTimeString(atomclk::AtomClk::time_point time);

// Whole microseconds, cut towards zero, as a 32-bit integer: "1 us" for 1500 ns.
std::string GetTimeString(std::chrono::nanoseconds duration);

}  // namespace vosk::lumo
