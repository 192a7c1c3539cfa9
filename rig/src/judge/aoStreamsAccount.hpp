#pragma once

// The books of the four streams that tell the instrument what the telescope did: every wavefront command that
// reached the host is a beat with four samples, and each sample holds what a mirror really got. Pure
// functions of what the peers wrote down.

#include "modeTimeline.hpp"
#include "peers/aoStreams.hpp"
#include "peers/flowgraphProcess.hpp"
#include "peers/loopRecords.hpp"
#include "peers/recordStreams.hpp"
#include "scenario.hpp"

#include <vosk/defs/wireRecords.hpp>

#include <array>
#include <span>
#include <string>
#include <vector>

namespace vosk::rig {

struct AoStreamsFacts {
    std::span<const CommandRecord> commands;
    std::array<std::span<const AoSample>, AO_STREAMS> samples;
    std::array<std::uint64_t, AO_STREAMS> broken{};  // samples that reached the rig in parts
    std::span<const SetpointRecord> setpoints;
    std::span<const FeedbackRecord> feedback;
    std::span<const Sample<defs::M5PttAct::Payload>> m5_positions;  // that the host took; empty: no M5
    std::span<const FieldRecord> flowgraph;                         // empty: there is none
    std::span<const ModeTimeline::Change> modes;
    time_point until;  // beats that last beyond this need not be whole
};

// Each sample is one of right, late, old or wrong.
struct AoStreamAccount {
    std::uint64_t due = 0;
    std::uint64_t right = 0;
    std::uint64_t missing = 0;
    std::uint64_t late = 0;  // beyond the margin
    std::uint64_t old = 0;   // what a mirror got, but the host must have had newer data
    std::uint64_t wrong = 0;
    std::vector<double> delays;  // microseconds: arrival after the planned time
};

struct AoStreamsAccounts {
    std::array<AoStreamAccount, AO_STREAMS> streams;
    std::uint64_t harmed = 0;    // commands that the rig spoilt on their way to the host
    std::uint64_t dropped = 0;   // beats that came while the one before was still being sent
    std::uint64_t skipped = 0;   // beats without a sample for no such reason
    std::uint64_t partial = 0;   // beats with some of their samples
    std::uint64_t disorder = 0;  // beats whose samples came in another order
    std::vector<std::string> violations;
};

AoStreamsAccounts MakeAoStreamsAccounts(const Scenario& scenario, const AoStreamsFacts& facts);

}  // namespace vosk::rig
