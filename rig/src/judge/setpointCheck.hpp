#pragma once

// Whether each setpoint of M4 is what the control mode makes of the commands that came in: tip and tilt from
// one of them, the modes above from another, the reference shape on top. No limit is reached here, so that
// the content is the sum to within the rounding of single precision. After the run.

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
    // From the newest of the commands that it is made of, being given, to its arrival: microseconds.
    std::vector<double> delays;
};

SetpointAccounts CheckSetpoints(const SetpointFacts& facts);

}  // namespace vosk::rig
