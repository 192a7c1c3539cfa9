#pragma once

// A mirror that follows its last command as a first-order lag. It keeps all commands, so that its position at
// any time that has passed can be told again. Any thread.

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

    // From `time` on, but not before a time at which somebody has already seen the mirror.
    void Follow(time_point time, std::span<const double> target);
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
