#pragma once

// When a peer was away. Any thread.

#include "clock.hpp"

#include <mutex>
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

}  // namespace vosk::rig
