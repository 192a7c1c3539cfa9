#pragma once

// When the host was asked for which control mode, and when it had said yes. Any thread.

#include "clock.hpp"

#include <vosk/defs/controlMode.hpp>

#include <cstddef>
#include <mutex>
#include <vector>

namespace vosk::rig {

class ModeTimeline {
public:
    struct Change {
        defs::VoskControlMode mode;
        time_point asked;
        time_point done;  // the far future while the host hasn't answered
    };

    // Returns the change's index for Complete.
    std::size_t Ask(defs::VoskControlMode mode, time_point now);
    void Complete(std::size_t change, time_point now);

    // Modes that may have been in force at some moment from `from` to `to`: at most a few.
    std::vector<defs::VoskControlMode> InForce(time_point from, time_point to) const;
    std::vector<Change> Changes() const;

    // Changes from a telescope-driven mode to an instrument-driven one that were asked for by then.
    std::size_t HandoversAskedBy(time_point time) const;

private:
    mutable std::mutex m_mutex;
    std::vector<Change> m_changes;  // guarded by m_mutex
};

}  // namespace vosk::rig
