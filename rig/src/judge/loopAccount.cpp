#include "judge/loopAccount.hpp"

#include "report/plots.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace vosk::rig {
namespace {

// What the setpoints were like, one value each.
struct Series {
    std::vector<double> time;
    std::vector<double> lateness;
    std::vector<double> latency;
    std::vector<double> command_rms;
    std::vector<double> setpoint_rms;
};

class Describer {
public:
    Describer(const Scenario& scenario, const RunFacts& run, const LoopFacts& loop, const Accounts& accounts,
              std::uint64_t overruns)
        : m_scenario(scenario), m_run(run), m_loop(loop), m_accounts(accounts), m_overruns(overruns) {}

    PeerAccount Describe() const {
        PeerAccount account;
        account.violations = m_accounts.violations;
        account.achievement = fmt::format(
            "{} of {} valid commands under INS control led to the setpoint that the rig computes; "
            "every other one is accounted for by name",
            m_accounts.Count(CommandFate::AsPredicted), m_accounts.valid_in_ins_control);
        account.sections = {Commands(), Answers()};
        account.history = Events();
        const Series series = Gather();
        AddTimes(account, series);
        AddPlots(account, series);
        account.notes = {
            "The expected content of each setpoint is worked out by the rig alone, in double precision, from "
            "the command, the control mode and what M4 applied last; the tolerance is what single precision "
            "can lose.",
            "Arrival times at M4 are the kernel's, taken as the packet reaches the socket, so that the rig's "
            "own wake-up is not in them.",
            "While the telescope has control, setpoints are paced by field stabilisation, which is no part "
            "of "
            "this bench. None flow before the first handover, and the reference shape that the handover "
            "takes "
            "up is zero.",
            "Where the fate of an answer can't be told from its time, the setpoint that follows tells it: "
            "its "
            "content differs with what the system believes M4 to have applied."};
        return account;
    }

private:
    ReportSection Commands() const {
        ReportSection section{"Commands", {"what became of them", "count", ""}, {}, {}};
        const auto row = [&](std::string_view name, std::uint64_t count, std::string_view meaning) {
            if (count > 0)
                section.rows.push_back({std::string(name), fmt::to_string(count), std::string(meaning)});
        };
        for (std::size_t i = 0; i < COMMAND_FATES; ++i) {
            const auto fate = static_cast<CommandFate>(i);
            row(NameOf(fate), m_accounts.count[i], MeaningOf(fate));
        }
        row("all", m_loop.commands.size(), "sent");
        row("rig overran", m_overruns, "never sent, as the rig itself woke too late");
        row("step limited", m_accounts.velocity_limited, "the step limit scaled the setpoint");
        row("gap limited", m_accounts.gap_limited, "the position limit scaled the setpoint");
        row("sent late", m_accounts.sent_late,
            fmt::format("the setpoint reached M4 more than {} us after its time",
                        m_scenario.expect.send_margin.count()));
        row("retimed", m_accounts.retimed,
            "sent at the time of an invalid command that came at once after it");
        section.notes.push_back(
            fmt::format("Exceptions (overwritten, late, replaced, incomplete, sent late, answer not taken): "
                        "{} = {:.3f} % of "
                        "the valid commands under INS control; {:.3g} % are allowed.",
                        m_accounts.exceptions, 100.0 * m_accounts.ExceptionShare(),
                        100.0 * m_scenario.expect.max_exceptions));
        return section;
    }

    ReportSection Answers() const {
        const AnswerCounts& answers = m_accounts.answers;
        const auto row = [](const char* name, std::uint64_t count, const char* meaning) {
            return std::vector<std::string>{name, fmt::to_string(count), meaning};
        };
        return {
            "Answers of M4",
            {"answer", "count", ""},
            {row("in time", answers.in_time, "so early that the host must have it in time"),
             row("close", answers.close, "so close to the end of the host's patience that either may happen"),
             row("late", answers.late, "after the end of the host's patience"),
             row("wrong ID", answers.wrong_id, "sent with another sample ID by the rig"),
             row("harmed", answers.harmed, "spoilt by the rig on its way to the host"),
             row("not sent", answers.not_sent, "M4 died with the answer due"),
             row("not taken", answers.not_taken, "of those in time: the next setpoint does not build on it")},
            {}};
    }

    History Events() const {
        History history;
        for (const Recovery& recovery : m_accounts.recoveries) {
            const auto text = [](const auto& duration) {
                return duration ? fmt::format("{:.3f} ms", MicrosecondsOf(*duration) / 1e3)
                                : std::string("never");
            };
            history.emplace_back(m_run.SecondsSinceStart(recovery.returned),
                                 fmt::format("M4 is back: first setpoint after {}, in step after {}",
                                             text(recovery.first_setpoint), text(recovery.in_step)));
        }
        const auto first = std::find_if(m_loop.checked.begin(), m_loop.checked.end(),
                                        [](const CheckedSetpoint& checked) { return checked.command; });
        if (first != m_loop.checked.end())
            history.emplace_back(m_run.SecondsSinceStart(m_loop.setpoints[first->setpoint].arrived),
                                 "first setpoint at M4");
        return history;
    }

    Series Gather() const {
        Series series;
        for (const CheckedSetpoint& checked : m_loop.checked) {
            if (!checked.command) continue;
            const SetpointRecord& setpoint = m_loop.setpoints[checked.setpoint];
            series.time.push_back(m_run.SecondsSinceStart(setpoint.arrived));
            series.lateness.push_back(MicrosecondsOf(setpoint.arrived - setpoint.planned));
            series.latency.push_back(
                MicrosecondsOf(setpoint.arrived - m_loop.commands[*checked.command].sent));
            series.command_rms.push_back(checked.command_rms);
            series.setpoint_rms.push_back(checked.setpoint_rms);
        }
        return series;
    }

    void AddTimes(PeerAccount& account, const Series& series) const {
        std::vector<double> sending;
        for (const CommandRecord& command : m_loop.commands)
            if (!command.fault) sending.push_back(MicrosecondsOf(command.sent - command.time_stamp));
        std::vector<double> lateness;
        std::vector<double> answers;
        for (const CheckedSetpoint& checked : m_loop.checked) {
            const SetpointRecord& setpoint = m_loop.setpoints[checked.setpoint];
            lateness.push_back(MicrosecondsOf(setpoint.arrived - setpoint.planned));
            if (setpoint.answer == AnswerFate::Sent)
                answers.push_back(MicrosecondsOf(setpoint.answer_sent - setpoint.arrived));
        }
        account.times = {{"command: actual less planned send time", SpreadOf(std::move(sending))},
                         {"setpoint: actual less planned send time", SpreadOf(std::move(lateness))},
                         {"command sent to setpoint received", SpreadOf(series.latency)},
                         {"setpoint received to answer sent", SpreadOf(std::move(answers))}};
    }

    void AddPlots(PeerAccount& account, const Series& series) const {
        std::vector<PlotMark> marks;
        for (const Step& step : m_scenario.steps) marks.push_back({step.at.count(), ToString(step)});
        account.plots = {
            PlotOverTime("Setpoint: actual less planned send time", series.time, series.lateness, marks),
            Histogram("Distribution of actual less planned send time", "setpoints", series.lateness),
            PlotOverTime("Command sent to setpoint received", series.time, series.latency, marks)};
        account.plots.push_back({"Managed modes of command and setpoint",
                                 "s after the first command",
                                 "rms",
                                 false,
                                 {Range(Slice(series.time, series.command_rms), "command", "b"),
                                  Median(Slice(series.time, series.setpoint_rms), "setpoint", "a")},
                                 marks});
        if (const PlotSeries missing = Missing(); !missing.x.empty())
            account.plots.push_back({"Valid commands under INS control without a setpoint",
                                     "s after the first command",
                                     "in each 0.1 s",
                                     false,
                                     {missing},
                                     marks});
    }

    PlotSeries Missing() const {
        PlotSeries bars{"commands", "bad", PlotSeries::Style::Bars, {}, {}, {}};
        bool any = false;
        for (std::size_t i = 0; i < m_loop.commands.size(); ++i) {
            const CommandFate fate = m_accounts.fates[i];
            const auto bin = static_cast<std::size_t>(
                std::max(10.0 * m_run.SecondsSinceStart(m_loop.commands[i].time_stamp), 0.0));
            while (bars.x.size() <= bin) {
                bars.x.push_back(0.1 * static_cast<double>(bars.x.size()));
                bars.y.push_back(0.0);
            }
            if (fate == CommandFate::NotForM4 || fate == CommandFate::AsPredicted) continue;
            bars.y[bin] += 1.0;
            any = true;
        }
        if (!any) bars.x.clear();
        return bars;
    }

    const Scenario& m_scenario;
    const RunFacts& m_run;
    const LoopFacts& m_loop;
    const Accounts& m_accounts;
    const std::uint64_t m_overruns;
};

}  // namespace

PeerAccount DescribeLoop(const Scenario& scenario, const RunFacts& run, const LoopFacts& loop,
                         const Accounts& accounts, std::uint64_t overruns) {
    return Describer(scenario, run, loop, accounts, overruns).Describe();
}

}  // namespace vosk::rig
