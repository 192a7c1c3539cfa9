#include "report/report.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace vosk::rig {
namespace {

class Author {
public:
    Author(const Scenario& scenario, const RunFacts& facts, const Accounts& accounts, const Figures& figures)
        : m_scenario(scenario), m_facts(facts), m_accounts(accounts), m_figures(figures) {}

    RunReport Write() const {
        RunReport report;
        report.sections = {Settings(), Commands(), Answers(), Counts(),
                           Streams(),  Faults(),   Times(),   History()};
        report.holds = m_accounts.Holds();
        report.violations = m_accounts.violations;
        report.advice = m_facts.advice;
        report.verdict =
            report.holds
                ? fmt::format(
                      "the verdict holds: {} of {} valid commands under INS control led to the setpoint "
                      "that the rig computes; every other one is accounted for by name",
                      m_accounts.Count(CommandFate::AsPredicted), m_accounts.valid_in_ins_control)
                : "the verdict does not hold";
        return report;
    }

private:
    ReportSection Settings() const {
        const HostSettings& host = m_scenario.host;
        return {
            "Settings",
            {},
            {},
            {fmt::format("{:g} commands a second for {:g} s; {} managed modes, {} scaling; setpoints leave "
                         "{} us after the command's time stamp, answers are awaited for {} us; M4 answers "
                         "{} us after a setpoint.",
                         m_scenario.instrument.rate, m_scenario.duration.count(), host.managed_modes,
                         host.delta_scaling ? "delta" : "absolute", host.m4_send_delay.count(),
                         host.m4_response_timeout.count(), m_scenario.m4.answer_delay.count()),
             fmt::format("Priority of the host's threads: {}, of the peers: {}{}.", host.priority,
                         host.PeerPriority(), m_facts.advice.empty() ? "" : "; not granted by the system")}};
    }

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
        row("all", m_facts.commands.size(), "sent");
        row("rig overran", m_facts.instrument_overruns, "never sent, as the rig itself woke too late");
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

    ReportSection Counts() const {
        ReportSection section{"What the host counts", {"count", "since its start"}, {}, {}};
        const auto row = [&](std::string name, std::uint64_t count) {
            std::replace(name.begin(), name.end(), '_', ' ');
            section.rows.push_back({std::move(name), fmt::to_string(count)});
        };
        for (const auto& [name, count] : HOST_COUNTS) row(name, m_facts.status.counts.*count);
        row("log lines dropped", m_facts.status.log_dropped);
        return section;
    }

    ReportSection Streams() const {
        ReportSection section{"Streams",
                              {"stream", "sent", "received", "lost", "invalid", "rate, Hz", "jitter, us", ""},
                              {},
                              {}};
        for (const StreamFigures& stream : m_figures.streams) {
            std::vector<std::string> row{stream.name};
            for (const std::string& cell : CellsOf(stream)) row.push_back(cell);
            row.push_back(stream.remark);
            section.rows.push_back(std::move(row));
        }
        return section;
    }

    ReportSection Faults() const {
        ReportSection section{"Faults injected", {"stream", "kind", "injected", ""}, {}, {}};
        for (const FaultFigures& fault : m_figures.faults)
            section.rows.push_back({ToString(fault.stream), ToString(fault.kind),
                                    fmt::to_string(fault.injected), fault.reported});
        return section;
    }

    ReportSection Times() const {
        ReportSection section{"Times", {"us", "min", "p50", "p99", "max"}, {}, {}};
        const auto row = [&](const char* name, const Spread& spread) {
            section.rows.push_back({name, fmt::format("{:.1f}", spread.min),
                                    fmt::format("{:.1f}", spread.p50), fmt::format("{:.1f}", spread.p99),
                                    fmt::format("{:.1f}", spread.max)});
        };
        row("command: actual less planned send time", m_figures.instrument);
        row("setpoint: actual less planned send time", m_figures.lateness);
        row("command sent to setpoint received", m_figures.command_to_setpoint);
        row("setpoint received to answer sent", m_figures.answer);
        return section;
    }

    ReportSection History() const {
        ReportSection section{"Handover and events", {"s", ""}, {}, {}};
        for (const auto& [time, what] : m_figures.history)
            section.rows.push_back({fmt::format("{:.6f}", time), what});
        if (m_facts.stop_took)
            section.notes.push_back(fmt::format("The host ended {:.1f} ms after SIGTERM, with code {}.",
                                                MicrosecondsOf(*m_facts.stop_took) / 1e3,
                                                m_facts.host_exit ? *m_facts.host_exit : -1));
        return section;
    }

    const Scenario& m_scenario;
    const RunFacts& m_facts;
    const Accounts& m_accounts;
    const Figures& m_figures;
};

}  // namespace

RunReport MakeReport(const Scenario& scenario, const RunFacts& facts, const Accounts& accounts,
                     const Figures& figures) {
    return Author(scenario, facts, accounts, figures).Write();
}

}  // namespace vosk::rig
