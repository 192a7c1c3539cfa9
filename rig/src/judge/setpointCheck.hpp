#pragma once

// Whether each setpoint of M4 is what the control mode makes of the commands that came in: tip and tilt of
// one, the modes above of another, and the reference shape. No limit is reached here, so that the content is
// the sum, but for rounding to single precision. After the run.

#include "modeTimeline.hpp"
#include "peers/flowgraphProcess.hpp"
#include "peers/loopRecords.hpp"
#include "peers/setpointRing.hpp"
#include "telescope/instrumentLoop.hpp"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace vosk::rig {

struct SetpointFacts {
    std::span<const SetpointRecord> setpoints;
    const SetpointRing& vectors;
    std::span<const FieldRecord> field;
    std::span<const GpaoRecord> gpao;
    std::span<const InstrumentStep> instrument;
    const ModeTimeline& modes;
};

struct SetpointAccounts {
    std::uint64_t right = 0;
    std::uint64_t wrong = 0;
    std::uint64_t unchecked = 0;  // the vector was not kept
    std::vector<time_point> wrong_at;
    // Microseconds from the newest of its commands to its arrival.
    std::vector<double> delays;
    // Of each setpoint: its leading modes without the reference shape.
    std::vector<common::shmif::GpaoVector> applied;
};

SetpointAccounts CheckSetpoints(const SetpointFacts& facts);

}  // namespace vosk::rig
