#include "judge/accounting.hpp"

#include "faults.hpp"

#include <fmt/format.h>

#include <algorithm>

namespace vosk::rig {
namespace {

struct FateText {
    std::string_view name;
    std::string_view meaning;
};

constexpr std::array<FateText, COMMAND_FATES> FATES{{
    {"not for M4", "invalid, or sent while the telescope had control"},
    {"as predicted", "led to a setpoint with the content that the rig computes"},
    {"WRONG CONTENT", "led to a setpoint with other content"},
    {"UNCHECKED", "led to a setpoint whose content was not kept"},
    {"at handover", "thrown away as the first command of a new source"},
    {"overwritten", "the next command came before this one was taken up"},
    {"late", "the setpoint was made, but its send time had passed"},
    {"replaced", "the setpoint was made, but the next one came before it was sent"},
    {"incomplete", "the setpoint reached M4 in parts"},
    {"harmed", "spoilt by the rig on its way to the host"},
    {"M4 away", "nobody was there to receive the setpoint"},
    {"host stopped", "the host had been told to stop"},
    {"UNEXPLAINED", "none of these"},
}};

class Bookkeeper {
public:
    Bookkeeper(const Scenario& scenario, const RunFacts& run, const LoopFacts& loop)
        : m_scenario(scenario), m_run(run), m_loop(loop) {}

    Accounts Make() {
        m_accounts.fates.assign(m_loop.commands.size(), CommandFate::Unexplained);
        NameIrrelevantCommands();
        NameAnsweredCommands();
        NameCommandsAtHandover();
        NameHinderedCommands();
        NameSkippedCommands();
        NameReplacedCommands();
        CountSetpoints();
        CountAnswers();
        FindRecoveries();
        SumUp();
        Judge();
        return std::move(m_accounts);
    }

private:
    CommandFate& FateOf(std::size_t command) { return m_accounts.fates[command]; }
    bool Open(std::size_t command) { return FateOf(command) == CommandFate::Unexplained; }
    time_point PlannedSend(std::size_t command) const {
        return m_loop.commands[command].time_stamp + m_scenario.host.m4_send_delay;
    }

    // A command counts from the moment at which the host had said yes to an instrument-driven mode until the
    // moment at which it was asked for another.
    void NameIrrelevantCommands() {
        for (std::size_t i = 0; i < m_loop.commands.size(); ++i) {
            const CommandRecord& command = m_loop.commands[i];
            bool in_control = false;
            for (const ModeTimeline::Change& change : m_run.modes) {
                const bool ins = defs::IsInsDriven(change.mode);
                if (ins && !in_control && change.done <= command.sent) in_control = true;
                // The last valid command before a handback may find the mode changed when it is taken up.
                if (!ins && change.asked <= command.sent + m_scenario.CommandPeriod()) in_control = false;
            }
            if (!in_control || !command.valid) FateOf(i) = CommandFate::NotForM4;
        }
    }

    void NameAnsweredCommands() {
        std::vector<bool> named(m_loop.commands.size(), false);
        for (const CheckedSetpoint& checked : m_loop.checked) {
            if (!checked.command) continue;
            if (named[*checked.command]) {
                ++m_accounts.repeated;
                continue;
            }
            named[*checked.command] = true;
            switch (checked.content) {
                case Content::AsPredicted:
                    FateOf(*checked.command) = CommandFate::AsPredicted;
                    break;
                case Content::Unchecked:
                    FateOf(*checked.command) = CommandFate::Unchecked;
                    break;
                case Content::Wrong:
                case Content::NoCommand:
                    FateOf(*checked.command) = CommandFate::WrongContent;
                    break;
            }
        }
    }

    // The command that follows a change to an instrument-driven mode starts the handover and is thrown away.
    // It may be one that was sent while the change was being asked for; then none of those that count is
    // missing.
    void NameCommandsAtHandover() {
        bool ins_before = false;
        for (const ModeTimeline::Change& change : m_run.modes) {
            const bool ins = defs::IsInsDriven(change.mode);
            if (ins && !ins_before) {
                for (std::size_t i = 0; i < m_loop.commands.size(); ++i) {
                    const CommandRecord& command = m_loop.commands[i];
                    if (command.sent < change.done || !command.valid) continue;
                    if (Open(i) && !Harmed(i)) FateOf(i) = CommandFate::AtHandover;
                    if (!Harmed(i)) break;
                }
            }
            ins_before = ins;
        }
    }

    bool Harmed(std::size_t command) const {
        const auto& fault = m_loop.commands[command].fault;
        return fault && HarmOf(*fault) != Harm::None;
    }

    bool M4AwayAt(time_point time) const {
        // A setpoint that was on its way when M4 died was lost with M4's socket.
        const auto margin = m_scenario.CommandPeriod();
        return std::any_of(m_loop.m4_absences.begin(), m_loop.m4_absences.end(), [&](const auto& absence) {
            return time >= absence.from - margin && (absence.to == time_point::max() || time <= absence.to);
        });
    }

    void NameHinderedCommands() {
        for (std::size_t i = 0; i < m_loop.commands.size(); ++i) {
            if (!Open(i)) continue;
            // A setpoint that was waiting for its send time goes down with the host.
            if (m_run.stop_asked && PlannedSend(i) + m_scenario.CommandPeriod() >= *m_run.stop_asked)
                FateOf(i) = CommandFate::HostStopped;
            else if (Harmed(i))
                FateOf(i) = CommandFate::Harmed;
            else if (M4AwayAt(PlannedSend(i)))
                FateOf(i) = CommandFate::M4Away;
        }
    }

    // The system numbers the setpoints that it makes. Where the numbers of two neighbours have a gap, so many
    // setpoints were made and didn't reach M4; the other commands between them were never taken up.
    void NameSkippedCommands() {
        std::size_t next_command = 0;
        defs::sample_id_t last_made = 0;  // the first setpoint of a host is number 1
        for (const CheckedSetpoint& checked : m_loop.checked) {
            if (!checked.command) continue;
            const defs::sample_id_t sample_id = m_loop.setpoints[checked.setpoint].sample_id;
            if (*checked.command >= next_command)
                NameBetween(next_command, *checked.command, sample_id - last_made - 1);
            next_command = *checked.command + 1;
            last_made = sample_id;
        }
        // Behind the last setpoint no number tells; the host's own count does.
        std::uint64_t told = m_run.status.counts.late_setpoints;
        told -= std::min(told, m_accounts.Count(CommandFate::Late));
        for (std::size_t i = m_loop.commands.size(); i-- > next_command && told > 0;) {
            if (!Open(i)) continue;
            Name(i, CommandFate::Late);
            --told;
        }
    }

    // The commands from `first` up to `last`, which is not one of them. Between them `made` setpoints were
    // made.
    void NameBetween(std::size_t first, std::size_t last, defs::sample_id_t made) {
        // IDs run on by one; a jump back is judged with the IDs.
        if (made >= (1U << 31U)) return;
        std::vector<std::size_t> open;
        std::uint64_t to_nobody = 0;
        for (std::size_t i = first; i < last; ++i) {
            if (Open(i)) open.push_back(i);
            if (FateOf(i) == CommandFate::M4Away) ++to_nobody;
        }
        const std::uint64_t skipped = made > to_nobody ? made - to_nobody : 0;
        for (std::size_t i = 0; i < open.size(); ++i) {
            const bool was_made = open.size() - i <= skipped;
            if (!was_made) {
                Name(open[i], CommandFate::Overwritten);
            } else if (m_accounts.Count(CommandFate::Incomplete) < m_loop.incomplete_setpoints) {
                Name(open[i], CommandFate::Incomplete);
            } else {
                Name(open[i], CommandFate::Late);
            }
        }
    }

    // The host counts the setpoints whose time had passed. One that was made and is not among those gave
    // way to its successor before it was sent. Which of them it was does not show from outside; how many
    // does.
    void NameReplacedCommands() {
        std::uint64_t late = 0;
        for (CommandFate& fate : m_accounts.fates)
            if (fate == CommandFate::Late && ++late > m_run.status.counts.late_setpoints)
                fate = CommandFate::Replaced;
    }

    void Name(std::size_t command, CommandFate fate) {
        FateOf(command) = fate;
        ++m_accounts.count[static_cast<std::size_t>(fate)];
    }

    void CountSetpoints() {
        for (std::size_t i = 0; i < m_loop.checked.size(); ++i) {
            const CheckedSetpoint& checked = m_loop.checked[i];
            const SetpointRecord& setpoint = m_loop.setpoints[checked.setpoint];
            m_accounts.velocity_limited += checked.velocity_limited ? 1 : 0;
            m_accounts.gap_limited += checked.gap_limited ? 1 : 0;
            m_accounts.retimed += checked.retimed ? 1 : 0;
            m_accounts.early += setpoint.arrived < setpoint.planned - CLOCK_DIFFERENCE ? 1 : 0;
            m_accounts.sent_late += SentLate(setpoint) ? 1 : 0;
            m_accounts.unmarked += setpoint.marked_valid ? 0 : 1;
            m_accounts.setpoints_for_no_command += checked.content == Content::NoCommand ? 1 : 0;
            const bool runs_on =
                i == 0 ||
                static_cast<std::int32_t>(setpoint.sample_id -
                                          m_loop.setpoints[m_loop.checked[i - 1].setpoint].sample_id) > 0;
            m_accounts.out_of_order += setpoint.in_order && runs_on ? 0 : 1;
        }
    }

    void CountAnswers() {
        AnswerCounts& answers = m_accounts.answers;
        for (const CheckedSetpoint& checked : m_loop.checked) {
            const SetpointRecord& setpoint = m_loop.setpoints[checked.setpoint];
            switch (setpoint.answer) {
                case AnswerFate::Sent:
                    ++(InTime(setpoint) ? answers.in_time : IsClose(setpoint) ? answers.close : answers.late);
                    break;
                case AnswerFate::WrongSampleId:
                    ++answers.wrong_id;
                    break;
                case AnswerFate::Harmed:
                    ++answers.harmed;
                    break;
                case AnswerFate::NotSent:
                    ++answers.not_sent;
                    break;
            }
            if (checked.prior_answer != PriorAnswer::NotTaken || checked.setpoint == 0) continue;
            const SetpointRecord& before = m_loop.setpoints[checked.setpoint - 1];
            // A setpoint that was sent late is an exception by that name already.
            if (before.answer == AnswerFate::Sent && InTime(before) && !SentLate(before) &&
                !Disturbed(checked.setpoint - 1))
                ++answers.not_taken;
        }
    }

    bool SentLate(const SetpointRecord& setpoint) const {
        return setpoint.arrived > setpoint.planned + m_scenario.expect.send_margin;
    }
    bool InTime(const SetpointRecord& setpoint) const {
        return setpoint.answer_sent + ANSWER_TRAVEL <= AnswerDeadline(setpoint);
    }
    bool IsClose(const SetpointRecord& setpoint) const {
        return !InTime(setpoint) && setpoint.answer_sent <= AnswerDeadline(setpoint);
    }
    time_point AnswerDeadline(const SetpointRecord& setpoint) const {
        return setpoint.planned + m_scenario.host.m4_response_timeout;
    }

    // Whether the rig's own doing explains that this setpoint's answer was not taken: a fault on it, or a
    // late or foreign answer just before it, which the system took for this one's and refused.
    bool Disturbed(std::size_t setpoint) const {
        const SetpointRecord& own = m_loop.setpoints[setpoint];
        if (own.answer_fault && HarmOf(*own.answer_fault) != Harm::None) return true;
        const std::size_t first = setpoint > 4 ? setpoint - 4 : 0;
        for (std::size_t i = first; i < setpoint; ++i) {
            const SetpointRecord& before = m_loop.setpoints[i];
            if (before.answer_sent > own.arrived - m_scenario.CommandPeriod() && before.answer_fault)
                return true;
        }
        return false;
    }

    void FindRecoveries() {
        for (const Absences::Absence& absence : m_loop.m4_absences) {
            if (absence.to == time_point::max()) continue;
            Recovery recovery{absence.to, {}, {}};
            for (const CheckedSetpoint& checked : m_loop.checked) {
                const SetpointRecord& setpoint = m_loop.setpoints[checked.setpoint];
                if (setpoint.arrived < absence.to) continue;
                if (!recovery.first_setpoint) recovery.first_setpoint = setpoint.arrived - absence.to;
                if (checked.content == Content::AsPredicted && checked.prior_answer == PriorAnswer::Taken) {
                    recovery.in_step = setpoint.arrived - absence.to;
                    break;
                }
            }
            m_accounts.recoveries.push_back(recovery);
        }
    }

    void SumUp() {
        m_accounts.count.fill(0);
        for (const CommandFate fate : m_accounts.fates) ++m_accounts.count[static_cast<std::size_t>(fate)];
        m_accounts.valid_in_ins_control = m_accounts.fates.size() - m_accounts.Count(CommandFate::NotForM4);
        m_accounts.exceptions =
            m_accounts.Count(CommandFate::Overwritten) + m_accounts.Count(CommandFate::Late) +
            m_accounts.Count(CommandFate::Replaced) + m_accounts.Count(CommandFate::Incomplete) +
            m_accounts.sent_late + m_accounts.answers.not_taken;
    }

    void Judge() {
        const auto refuse = [this](std::uint64_t count, const char* what) {
            if (count > 0) m_accounts.violations.push_back(fmt::format("{} {}", count, what));
        };
        refuse(m_accounts.Count(CommandFate::WrongContent), "commands led to setpoints with wrong content");
        refuse(m_accounts.Count(CommandFate::Unexplained),
               "commands led to no setpoint, and nothing tells why");
        refuse(m_accounts.Count(CommandFate::Unchecked),
               "setpoints went unchecked, as the rig could not keep up");
        refuse(m_accounts.setpoints_for_no_command, "setpoints carry a time that belongs to no command");
        refuse(m_accounts.out_of_order, "setpoints came with packets or sample IDs out of order");
        refuse(m_accounts.repeated, "setpoints belong to a command that had one already");
        refuse(m_accounts.early, "setpoints reached M4 before their planned send time");
        refuse(m_accounts.unmarked, "setpoints are not marked valid");
        refuse(m_loop.foreign_packets, "packets at M4's port were no part of a setpoint");
        refuse(m_loop.log_overflow, "records did not fit the rig's own logs");
        refuse(m_run.status.counts.kept_back_setpoints,
               "setpoints were kept back, though all commands are finite");
        JudgeSilence();
        JudgeOverwritten();
        if (m_accounts.ExceptionShare() > m_scenario.expect.max_exceptions)
            m_accounts.violations.push_back(
                fmt::format("{} exceptions in {} valid commands under INS control, more than {:.3g} %",
                            m_accounts.exceptions, m_accounts.valid_in_ins_control,
                            100.0 * m_scenario.expect.max_exceptions));
        if (m_accounts.Count(CommandFate::AsPredicted) < m_scenario.expect.min_setpoints)
            m_accounts.violations.push_back(
                fmt::format("only {} setpoints with the right content, of at least {}",
                            m_accounts.Count(CommandFate::AsPredicted), m_scenario.expect.min_setpoints));
        JudgeRecoveries();
    }

    // A setpoint that did not reach M4, or whose answer the rig spoilt, went without its answer, and the host
    // must have counted so many cycles. Those that were still open when it was asked stay out.
    void JudgeSilence() {
        std::uint64_t unanswered = 0;
        defs::sample_id_t before = 0;  // the first setpoint of a host is number 1
        for (const SetpointRecord& setpoint : m_loop.setpoints) {
            if (AnswerDeadline(setpoint) > m_run.status_time) break;
            // IDs run on by one; a jump back is judged with the IDs.
            const defs::sample_id_t skipped = setpoint.sample_id - before - 1;
            unanswered += skipped < (1U << 31U) ? skipped : 0;
            unanswered += setpoint.answer == AnswerFate::Sent ? 0 : 1;
            before = setpoint.sample_id;
        }
        const HostCounts& counts = m_run.status.counts;
        const std::uint64_t counted = counts.missing_answers + counts.foreign_answers;
        if (unanswered > counted)
            m_accounts.violations.push_back(fmt::format(
                "{} setpoints went without M4's answer, but the host counts {}", unanswered, counted));
    }

    // The host counts the commands that it never took up, and those that never reached it.
    void JudgeOverwritten() {
        const HostStream* stream = m_run.FindStream("AO_WAVEFRONT_CMD_INPUT");
        if (!m_run.at_rest || stream == nullptr) return;
        const std::uint64_t counted = m_run.status.counts.overwritten_commands + stream->lost;
        if (m_accounts.Count(CommandFate::Overwritten) > counted)
            m_accounts.violations.push_back(
                fmt::format("{} commands were never taken up, but the host counts {}",
                            m_accounts.Count(CommandFate::Overwritten), counted));
    }

    void JudgeRecoveries() {
        for (const Recovery& recovery : m_accounts.recoveries)
            if (!recovery.in_step || *recovery.in_step > m_scenario.expect.recovery)
                m_accounts.violations.push_back(
                    fmt::format("after M4 came back, setpoints and answers were not in step within {} ms",
                                m_scenario.expect.recovery.count()));
    }

    const Scenario& m_scenario;
    const RunFacts& m_run;
    const LoopFacts& m_loop;
    Accounts m_accounts;
};

}  // namespace

std::string_view NameOf(CommandFate fate) {
    return FATES[static_cast<std::size_t>(fate)].name;
}

std::string_view MeaningOf(CommandFate fate) {
    return FATES[static_cast<std::size_t>(fate)].meaning;
}

double Accounts::ExceptionShare() const {
    if (valid_in_ins_control == 0) return 0.0;
    return static_cast<double>(exceptions) / static_cast<double>(valid_in_ins_control);
}

Accounts MakeAccounts(const Scenario& scenario, const RunFacts& run, const LoopFacts& loop) {
    return Bookkeeper(scenario, run, loop).Make();
}

}  // namespace vosk::rig
