#pragma once

// The books of the AO loop: what became of every valid command, of every setpoint and of every answer, each
// under one name, and the verdict that follows. Made once, after the run, from the peers' logs and the host's
// counts. No access to the run's threads: a function of its inputs.

#include "judge/contentCheck.hpp"
#include "peers/absences.hpp"
#include "runFacts.hpp"
#include "scenario.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vosk::rig {

// What became of a command.
enum class CommandFate {
    NotForM4,      // invalid, or sent while the telescope had control
    AsPredicted,   // led to a setpoint with the right content
    WrongContent,  // led to a setpoint with other content
    Unchecked,     // led to a setpoint whose content was not kept
    AtHandover,    // the first one under a new source, which the handover throws away
    Overwritten,   // the next command came before this one was taken up
    Late,          // its setpoint was made, but its send time had passed
    Replaced,      // its setpoint was made, but the next one came before it was sent
    Incomplete,    // its setpoint reached M4 in parts
    Harmed,        // the rig's fault injection spoilt it on the way to the host
    M4Away,        // nobody was there to receive its setpoint
    HostStopped,   // the host had been told to stop
    Unexplained,   // none of these
};
inline constexpr std::size_t COMMAND_FATES = 13;
std::string_view NameOf(CommandFate fate);
std::string_view MeaningOf(CommandFate fate);

// What an answer takes from M4 to the system's decision when both threads on that road sleep: two wake-ups.
inline constexpr std::chrono::microseconds ANSWER_TRAVEL{200};

// Two clocks are read for a lateness, the host's and the kernel's at M4, and they may differ by so much.
inline constexpr std::chrono::microseconds CLOCK_DIFFERENCE{1};

struct AnswerCounts {
    std::uint64_t in_time = 0;  // sent so early that the system must have it before it stops waiting
    std::uint64_t close = 0;    // sent before that moment, but so close to it that either may happen
    std::uint64_t late = 0;     // sent after that
    std::uint64_t wrong_id = 0;
    std::uint64_t harmed = 0;     // the rig's fault injection spoilt it
    std::uint64_t not_sent = 0;   // M4 died with the answer due
    std::uint64_t not_taken = 0;  // of those in time: the next setpoint shows that the system went without
};

struct Recovery {
    time_point returned;
    std::optional<std::chrono::nanoseconds> first_setpoint;  // after the return
    std::optional<std::chrono::nanoseconds> in_step;         // setpoints right and answers taken again
};

// What instrument, M4 and the check of contents know of the loop when it is over.
struct LoopFacts {
    std::span<const CommandRecord> commands;
    std::span<const SetpointRecord> setpoints;
    std::span<const CheckedSetpoint> checked;
    std::vector<Absences::Absence> m4_absences;
    std::uint64_t incomplete_setpoints = 0;  // that reached M4 in parts
    std::uint64_t foreign_packets = 0;       // at M4's port that were no part of a setpoint
    std::uint64_t log_overflow = 0;          // records that the rig itself could not keep
};

struct Accounts {
    std::vector<CommandFate> fates;  // one a command
    std::array<std::uint64_t, COMMAND_FATES> count{};
    std::uint64_t valid_in_ins_control = 0;
    std::uint64_t exceptions = 0;  // overwritten, late, replaced, incomplete, sent late, answer not taken
    std::uint64_t sent_late = 0;   // setpoints that reached M4 after the margin behind their time
    std::uint64_t early = 0;       // setpoints that reached M4 before their time
    std::uint64_t repeated = 0;    // setpoints for a command that had one already
    std::uint64_t retimed = 0;
    std::uint64_t velocity_limited = 0;
    std::uint64_t gap_limited = 0;
    std::uint64_t out_of_order = 0;  // setpoints whose packets or sample IDs came in a wrong order
    std::uint64_t unmarked = 0;      // setpoints without the valid mark
    std::uint64_t setpoints_for_no_command = 0;
    AnswerCounts answers;
    std::vector<Recovery> recoveries;
    std::vector<std::string> violations;  // empty: the verdict holds

    std::uint64_t Count(CommandFate fate) const { return count[static_cast<std::size_t>(fate)]; }
    double ExceptionShare() const;
    bool Holds() const { return violations.empty(); }
};

Accounts MakeAccounts(const Scenario& scenario, const RunFacts& run, const LoopFacts& loop);

}  // namespace vosk::rig
