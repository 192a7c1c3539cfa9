#pragma once

// Notices that AtomClk was set. Against the steady clock it only slews, far less than a second between looks.

#include <atomclk/atomClk.hpp>

#include <chrono>
#include <optional>
#include <utility>

namespace vosk::host {

class ClockWatch {
public:
    using Steady = std::chrono::steady_clock;

    ClockWatch(atomclk::AtomClk::time_point now, Steady::time_point steady) : m_lead{Lead(now, steady)} {}

    // By how much the clock was set since the last look, if by more than a second.
    std::optional<std::chrono::nanoseconds> Look(atomclk::AtomClk::time_point now,
                                                 Steady::time_point steady) {
        const auto lead = Lead(now, steady);
        const auto step = lead - std::exchange(m_lead, lead);
        if (std::chrono::abs(step) <= std::chrono::seconds{1}) return {};
        return step;
    }

private:
    static std::chrono::nanoseconds Lead(atomclk::AtomClk::time_point now, Steady::time_point steady) {
        return now.time_since_epoch() - steady.time_since_epoch();
    }

    std::chrono::nanoseconds m_lead;
};

}  // namespace vosk::host
