#pragma once

// What instrument and M4 write down of the AO loop: an entry a command, an entry a setpoint.

#include "clock.hpp"
#include "digest.hpp"
#include "scenario.hpp"

#include <vosk/defs/sizes.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace vosk::rig {

struct CommandRecord {
    std::uint64_t number = 0;  // of the wavefront, which gives the content
    time_point time_stamp;     // on the instrument's grid, in the packet headers
    time_point sent;
    defs::sample_id_t sample_id = 0;
    bool valid = true;
    std::optional<FaultKind> fault;
};

enum class AnswerFate { Sent, WrongSampleId, Harmed, NotSent };

struct SetpointRecord {
    static constexpr std::size_t NO_SLOT = static_cast<std::size_t>(-1);

    time_point planned;  // from the packet headers
    time_point arrived;  // of the first packet
    defs::sample_id_t sample_id = 0;
    bool in_order = false;      // its packets came in the order of their numbers
    bool marked_valid = false;  // the word behind the vector is 1
    std::size_t slot = NO_SLOT;
    Digest digest;  // of the modes that the instrument knows

    AnswerFate answer = AnswerFate::NotSent;
    std::optional<FaultKind> answer_fault;
    time_point answer_sent;  // 0 when none was
};

// A sample of M4's sensors.
struct FeedbackRecord {
    time_point sent;
    Digest digest;
    std::optional<FaultKind> fault;
};

}  // namespace vosk::rig
