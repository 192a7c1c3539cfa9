#include "report/report.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace vosk::rig {
namespace {

template <class T>
void Append(std::vector<T>& to, const std::vector<T>& from) {
    to.insert(to.end(), from.begin(), from.end());
}

class Author {
public:
    Author(const Scenario& scenario, const RunFacts& facts, std::span<const PeerAccount> accounts)
        : m_scenario(scenario), m_facts(facts), m_accounts(accounts) {}

    RunReport Write(std::vector<std::string> violations) const {
        RunReport report;
        report.name = m_scenario.name;
        report.description = m_scenario.description;
        report.violations = std::move(violations);
        report.sections.push_back(Settings());
        std::string achievements;
        for (const PeerAccount& account : m_accounts) {
            Append(report.violations, account.violations);
            Append(report.sections, account.sections);
            Append(report.plots, account.plots);
            Append(report.pictures, account.pictures);
            Append(report.notes, account.notes);
            if (account.achievement.empty()) continue;
            achievements += (achievements.empty() ? ": " : "; ") + account.achievement;
        }
        Append(report.sections, {Counts(), Streams(), Faults(), Times(), WriteHistory()});
        report.verdict = report.Holds() ? "the verdict holds" + achievements : "the verdict does not hold";
        report.advice = m_facts.advice;
        return report;
    }

private:
    ReportSection Settings() const {
        const HostSettings& host = m_scenario.host;
        ReportSection section{"Settings", {}, {}, {}};
        if (m_scenario.ao_loop)
            section.notes.push_back(fmt::format(
                "{:g} commands a second for {:g} s; {} managed modes, {} scaling; setpoints leave {} us "
                "after "
                "the command's time stamp, answers are awaited for {} us; M4 answers {} us after a setpoint.",
                m_scenario.instrument.rate, m_scenario.duration.count(), host.managed_modes,
                host.delta_scaling ? "delta" : "absolute", host.m4_send_delay.count(),
                host.m4_response_timeout.count(), m_scenario.m4.answer_delay.count()));
        if (!m_scenario.cameras.empty()) section.notes.push_back(LightInWords());
        section.notes.push_back(fmt::format("Priority of the host's threads: {}, of the peers: {}{}.",
                                            host.priority, host.PeerPriority(),
                                            m_facts.advice.empty() ? "" : "; not granted by the system"));
        return section;
    }

    std::string LightInWords() const {
        const LightSettings& light = m_scenario.light;
        return fmt::format(
            "Light for {:g} s: D/r0 {:g}, V/D {:g} a second, so that tip and tilt have their knee at {:.1f} "
            "Hz: a small, fast telescope; shaking of {:g} radians rms at {:g} Hz.",
            m_scenario.duration.count(), light.d_over_r0, light.v_over_d, 0.6 * light.v_over_d,
            light.shake_rms, light.shake_frequency);
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
        for (const PeerAccount& account : m_accounts) {
            for (const StreamFigures& stream : account.streams) {
                std::vector<std::string> row{stream.name};
                for (const std::string& cell : CellsOf(stream)) row.push_back(cell);
                row.push_back(stream.remark);
                section.rows.push_back(std::move(row));
            }
        }
        return section;
    }

    ReportSection Faults() const {
        ReportSection section{"Faults injected", {"stream", "kind", "injected", ""}, {}, {}};
        for (const PeerAccount& account : m_accounts)
            for (const FaultFigures& fault : account.faults)
                section.rows.push_back({ToString(fault.stream), ToString(fault.kind),
                                        fmt::to_string(fault.injected), fault.reported});
        return section;
    }

    ReportSection Times() const {
        ReportSection section{"Times", {"us", "min", "p50", "p99", "max"}, {}, {}};
        for (const PeerAccount& account : m_accounts) {
            for (const auto& [name, spread] : account.times) {
                std::vector<std::string> row{name};
                for (const double value : {spread.min, spread.p50, spread.p99, spread.max})
                    row.push_back(fmt::format("{:.1f}", value));
                section.rows.push_back(std::move(row));
            }
        }
        return section;
    }

    ReportSection WriteHistory() const {
        History history;
        for (const ModeTimeline::Change& change : m_facts.modes) {
            const auto mode = vosk::to_string(change.mode);
            history.emplace_back(m_facts.SecondsSinceStart(change.asked), "rig asks for " + mode);
            if (change.done != time_point::max())
                history.emplace_back(m_facts.SecondsSinceStart(change.done), "host confirms " + mode);
        }
        for (const Step& step : m_scenario.steps)
            if (!std::holds_alternative<SetMode>(step.action) && step.at < m_scenario.duration)
                history.emplace_back(step.at.count(), "step: " + ToString(step));
        for (const HostEvent& event : m_facts.status.events)
            history.emplace_back(m_facts.SecondsSinceStart(event.time), "host: " + event.text);
        for (const PeerAccount& account : m_accounts) Append(history, account.history);
        std::stable_sort(history.begin(), history.end(),
                         [](const auto& left, const auto& right) { return left.first < right.first; });

        ReportSection section{"Handover and events", {"s", ""}, {}, {}};
        for (const auto& [time, what] : history) section.rows.push_back({fmt::format("{:.6f}", time), what});
        if (m_facts.stop_took)
            section.notes.push_back(fmt::format("The host ended {:.1f} ms after SIGTERM, with code {}.",
                                                MicrosecondsOf(*m_facts.stop_took) / 1e3,
                                                m_facts.host_exit ? *m_facts.host_exit : -1));
        return section;
    }

    const Scenario& m_scenario;
    const RunFacts& m_facts;
    const std::span<const PeerAccount> m_accounts;
};

}  // namespace

RunReport MakeReport(const Scenario& scenario, const RunFacts& facts, std::vector<std::string> violations,
                     std::span<const PeerAccount> accounts) {
    return Author(scenario, facts, accounts).Write(std::move(violations));
}

}  // namespace vosk::rig
