#pragma once

// When a peer was away. Any thread.

#include "clock.hpp"

#include <chrono>
#include <mutex>
#include <span>
#include <vector>

namespace vosk::rig {

class Absences {
public:
    struct Absence {
        time_point from;
        time_point to;  // the far future while it lasts
    };

    void Begin(time_point now);
    void End(time_point now);
    std::vector<Absence> All() const;

private:
    mutable std::mutex m_mutex;
    std::vector<Absence> m_absences;  // guarded by m_mutex
};

// Whether what was due then may have been lost with the peer: up to `before` earlier than its absence it was
// on its way.
bool IsAway(std::span<const Absences::Absence> absences, time_point time, std::chrono::nanoseconds before);

}  // namespace vosk::rig
