#pragma once

// The rig's clock is the host's: TAI.

#include <atomclk/atomClk.hpp>

#include <chrono>

namespace vosk::rig {

using atomclk::AtomClk;
using time_point = AtomClk::time_point;

// Sleeps to an absolute time; returns at once if it has passed.
void SleepUntil(time_point time);

double MicrosecondsOf(std::chrono::nanoseconds duration);

}  // namespace vosk::rig
