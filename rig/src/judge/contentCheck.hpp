#pragma once

// Pairs each setpoint that reached M4 with the command that it answers, by time, and holds its content
// against the prediction. What M4 applied before decides what comes next, and only the system knows whether
// an answer reached it in time: where both are possible both predictions count, and the one that fits tells.
// One thread at a time; it may run beside the peers.

#include "appendLog.hpp"
#include "judge/prediction.hpp"
#include "modeTimeline.hpp"
#include "peers/setpointRing.hpp"
#include "peers/wavefront.hpp"

#include <optional>
#include <span>
#include <vector>

namespace vosk::rig {

enum class Content {
    AsPredicted,
    Wrong,
    NoCommand,  // its time belongs to no command
    Unchecked,  // the vector was not kept
};

// What the system made of the answer to the setpoint before this one, as this one's content shows.
enum class PriorAnswer {
    Taken,
    NotTaken,
    NotShown,  // no answer could have been taken, or content does not depend on it
};

struct CheckedSetpoint {
    std::size_t setpoint = 0;            // index in the setpoint log
    std::optional<std::size_t> command;  // index in the command log of the command that gave the content
    bool retimed = false;                // carries the time of a later command, which was invalid
    Content content = Content::Unchecked;
    PriorAnswer prior_answer = PriorAnswer::NotShown;
    bool velocity_limited = false;
    bool gap_limited = false;
    float command_rms = 0.0F;  // over the managed modes
    float setpoint_rms = 0.0F;
};

class ContentCheck {
public:
    ContentCheck(const Scenario& scenario, const ModalBasis& basis, SaturationLimits limits,
                 const AppendLog<CommandRecord>& commands, const ModeTimeline& modes);

    struct Item {
        std::size_t index;
        const SetpointRecord* record;
        const SetpointRing::Vector* vector;  // null when it was not kept
    };

    // Setpoints in the order of arrival, some at a time; several at once cost less than each alone.
    // The result has one entry an item.
    std::vector<CheckedSetpoint> Check(std::span<const Item> items);

private:
    // An assembled command, reference shape included, under one assumption about mode and reference shape.
    struct Candidate {
        std::vector<float> command;
        Positions positions;
        bool reference_is_zero = true;  // the assumption at a handover
    };
    struct Work {
        CheckedSetpoint result;
        std::vector<Candidate> candidates;
        Positions setpoint_positions;
        bool after_handover = false;
    };

    bool HandoverBefore(const Item& item) const;
    Work Prepare(const Item& item, bool after_handover);
    void Project(std::vector<Work>& works, std::span<const Item> items) const;
    void Compare(Work& work, const Item& item);
    // The limitation under which the setpoint is the candidate's, if there is one.
    std::optional<Limitation> Fit(const Candidate& candidate, const Item& item,
                                  const std::vector<float>& applied,
                                  const Positions& applied_positions) const;
    void Remember(const Work& work, const Item& item);
    std::optional<std::size_t> FindCommand(time_point planned) const;

    std::chrono::nanoseconds m_send_delay;
    std::size_t m_managed_modes;
    ProjectionMatrix m_projection;
    SaturationModel m_saturation;
    WavefrontGenerator m_wavefront;
    const AppendLog<CommandRecord>& m_commands;
    const ModeTimeline& m_modes;

    std::vector<float> m_reference;  // the reference shape in force
    std::size_t m_handovers = 0;     // that the setpoints so far have seen

    // The setpoint before.
    struct Before {
        defs::sample_id_t sample_id = 0;
        bool seen = false;
        bool answered = false;  // its answer may have been taken
        std::vector<float> vector;
        Positions positions;
    } m_before;
    Positions m_nowhere;  // of an all-zero vector
    std::vector<float> m_zeroes;
};

}  // namespace vosk::rig
