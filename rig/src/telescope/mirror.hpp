#pragma once

// A mirror that follows its last command as a first-order lag. It keeps all commands, and so can tell its
// position at any time that has passed. Any thread.

#include "clock.hpp"

#include <chrono>
#include <cstddef>
#include <mutex>
#include <span>
#include <vector>

namespace vosk::rig {

class Mirror {
public:
    // At rest at zero. `commands`: so many are expected; more are kept, too.
    Mirror(std::size_t modes, std::chrono::nanoseconds lag, std::size_t commands);

    std::size_t Modes() const { return m_modes; }

    // From `time` on, but not before the latest time at which somebody saw the mirror.
    void Follow(time_point time, std::span<const double> target);
    // Stays where it is at that time.
    void Hold(time_point time);
    void At(time_point time, std::span<double> position) const;

private:
    void Place(time_point time, std::span<double> position) const;

    const std::size_t m_modes;
    const double m_lag;  // seconds
    mutable std::mutex m_mutex;
    // Guarded by m_mutex.
    mutable time_point m_seen{};
    std::vector<time_point> m_times;  // of the commands
    std::vector<double> m_values;     // position at the time and target of each: 2 x m_modes
};

}  // namespace vosk::rig
