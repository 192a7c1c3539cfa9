#include "htmlReport.hpp"

#include "svgPlot.hpp"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>

namespace vosk::rig {
namespace {

using Output = std::back_insert_iterator<std::string>;

constexpr const char* STYLE = R"(<style>
:root{--ink:#1b1f24;--paper:#fff;--faint:#d8dee4;--soft:#57606a;--a:#0969da;--b:#bc4c00;--c:#1a7f37;--bad:#cf222e}
@media(prefers-color-scheme:dark){:root{--ink:#e6edf3;--paper:#0d1117;--faint:#30363d;--soft:#8b949e;--a:#58a6ff;--b:#f0883e;--c:#3fb950;--bad:#f85149}}
body{font:15px/1.5 system-ui,sans-serif;color:var(--ink);background:var(--paper);max-width:1000px;margin:2rem auto;padding:0 1rem}
h1{font-size:1.5rem;margin-bottom:.2rem}h2{font-size:1.15rem;margin-top:2rem}
table{border-collapse:collapse;font-variant-numeric:tabular-nums}
th,td{border-bottom:1px solid var(--faint);padding:.2rem .8rem;text-align:right}
th:first-child,td:first-child,td.text{text-align:left}th{color:var(--soft);font-weight:600}
.verdict{font-size:1.2rem;font-weight:600;padding:.6rem 1rem;border-left:6px solid var(--c)}.verdict.no{border-color:var(--bad)}
.note{color:var(--soft)}
svg{width:100%;height:auto;margin:.6rem 0;font:12px system-ui,sans-serif}
svg text{fill:var(--ink)}svg .tick,svg .label{fill:var(--soft)}svg .title{font-weight:600;font-size:14px}
svg .grid{stroke:var(--faint);stroke-width:1}
svg .a{fill:var(--a)}svg .b{fill:var(--b)}svg .c{fill:var(--c)}svg .bad{fill:var(--bad)}
svg .line{fill:none;stroke-width:1.3}svg .band{fill:none;stroke-width:1.2}
svg .a.line,svg .a.band{stroke:var(--a)}svg .b.line,svg .b.band{stroke:var(--b)}svg .c.line,svg .c.band{stroke:var(--c)}
svg .band{opacity:.45}
svg .mark line{stroke:var(--soft);stroke-dasharray:4 3}svg .mark text{fill:var(--soft);font-size:11px}
</style>
)";

// One value for each of some hundred slices of time, so that a long run draws as fast as a short one and no
// outlier is averaged away.
struct Slices {
    std::vector<double> time;
    std::vector<double> low;
    std::vector<double> median;
    std::vector<double> high;
};

Slices Slice(const std::vector<double>& time, const std::vector<double>& value) {
    constexpr std::size_t COUNT = 600;
    Slices slices;
    if (time.empty()) return slices;
    const double length = std::max((time.back() - time.front()) / COUNT, 1e-9);
    std::vector<double> bucket;
    const auto close = [&](double centre) {
        slices.time.push_back(centre);
        if (bucket.empty()) {
            const double none = std::numeric_limits<double>::quiet_NaN();
            slices.low.push_back(none);
            slices.median.push_back(none);
            slices.high.push_back(none);
            return;
        }
        std::sort(bucket.begin(), bucket.end());
        slices.low.push_back(bucket.front());
        slices.median.push_back(bucket[bucket.size() / 2]);
        slices.high.push_back(bucket.back());
        bucket.clear();
    };
    std::size_t slice = 0;
    for (std::size_t i = 0; i < time.size(); ++i) {
        while (time[i] >= time.front() + length * static_cast<double>(slice + 1) && slice + 1 < COUNT)
            close(time.front() + length * (static_cast<double>(slice++) + 0.5));
        bucket.push_back(value[i]);
    }
    close(time.front() + length * (static_cast<double>(slice) + 0.5));
    return slices;
}

PlotSeries Median(const Slices& slices, const char* name, const char* css_class) {
    return {name, css_class, PlotSeries::Style::Line, slices.time, slices.median, {}};
}

PlotSeries Range(const Slices& slices, const char* name, const char* css_class) {
    return {name, css_class, PlotSeries::Style::Band, slices.time, slices.high, slices.low};
}

class Report {
public:
    Report(const Scenario& scenario, const RunFacts& facts, const Accounts& accounts, const Figures& figures)
        : m_scenario(scenario), m_facts(facts), m_accounts(accounts), m_figures(figures) {}

    std::string Make(const std::string& machine) {
        Write(
            "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>vosk-rig: "
            "{}</title>\n{}</head>"
            "<body>\n",
            EscapeHtml(m_scenario.name), STYLE);
        Write("<h1>Bench telescope: {}</h1>\n<p>{}</p>\n<p class=\"note\">{}</p>\n",
              EscapeHtml(m_scenario.name), EscapeHtml(m_scenario.description), EscapeHtml(machine));
        WriteVerdict();
        WriteSettings();
        WriteCommands();
        WriteAnswers();
        WriteStreams();
        WriteTimes();
        WritePlots();
        WriteHistory();
        WriteNotes();
        Write("</body></html>\n");
        return std::move(m_html);
    }

private:
    template <class... Args>
    void Write(fmt::format_string<Args...> format, Args&&... args) {
        fmt::format_to(Output(m_html), format, std::forward<Args>(args)...);
    }

    void WriteVerdict() {
        if (m_accounts.Holds()) {
            Write(
                "<p class=\"verdict\">The verdict holds: {} of {} valid commands under INS control led to "
                "the setpoint "
                "that the rig computes; every other one is accounted for by name.</p>\n",
                m_accounts.Count(CommandFate::AsPredicted), m_accounts.valid_in_ins_control);
            return;
        }
        Write("<div class=\"verdict no\">The verdict does not hold.<ul>\n");
        for (const std::string& violation : m_accounts.violations)
            Write("<li>{}</li>\n", EscapeHtml(violation));
        Write("</ul></div>\n");
    }

    void WriteSettings() {
        const HostSettings& host = m_scenario.host;
        Write(
            "<p>{:g} commands a second for {:g} s; {} managed modes, {} scaling; setpoints leave {} us after "
            "the "
            "command's time stamp, answers are awaited for {} us; M4 answers {} us after a setpoint.</p>\n",
            m_scenario.instrument.rate, m_scenario.duration.count(), host.managed_modes,
            host.delta_scaling ? "delta" : "absolute", host.m4_send_delay.count(),
            host.m4_response_timeout.count(), m_scenario.m4.answer_delay.count());
        Write("<p>Host and peers ran at {} priority.</p>\n", m_facts.realtime ? "real-time" : "ordinary");
        for (const FaultRule& rule : m_scenario.faults)
            Write("<p>Faults injected: {:g} % of {}: {}.</p>\n", 100.0 * rule.share, ToString(rule.stream),
                  ToString(rule.kind));
    }

    void WriteCommands() {
        Write("<h2>Commands</h2>\n<table><tr><th>what became of them</th><th>count</th><th></th></tr>\n");
        for (std::size_t i = 0; i < COMMAND_FATES; ++i) {
            if (m_accounts.count[i] == 0) continue;
            const auto fate = static_cast<CommandFate>(i);
            Write("<tr><td>{}</td><td>{}</td><td class=\"text\">{}</td></tr>\n", NameOf(fate),
                  m_accounts.count[i], MeaningOf(fate));
        }
        Write("<tr><td>all</td><td>{}</td><td></td></tr></table>\n", m_facts.commands.size());
        if (m_facts.instrument_overruns > 0)
            Write("<p>{} commands more were never sent, as the rig itself woke too late for them.</p>\n",
                  m_facts.instrument_overruns);
        Write(
            "<p>Exceptions (overwritten, late, replaced, incomplete, answer not taken): {} = {:.3f} % of the "
            "valid "
            "commands "
            "under INS control; {:.3g} % are allowed. The step limit scaled {} setpoints, the position limit "
            "{}.</p>\n",
            m_accounts.exceptions, 100.0 * m_accounts.ExceptionShare(),
            100.0 * m_scenario.expect.max_exceptions, m_accounts.velocity_limited, m_accounts.gap_limited);
    }

    void WriteAnswers() {
        const AnswerCounts& answers = m_accounts.answers;
        Write(
            "<h2>Answers of M4</h2>\n<table><tr><th>in time</th><th>close</th><th>late</th><th>wrong "
            "ID</th><th>harmed</th>"
            "<th>not sent</th><th>in time but not taken</th></tr>\n");
        Write(
            "<tr><td>{}</td><td>{}</td><td>{}</td><td>{}</td><td>{}</td><td>{}</td><td>{}</td></tr></"
            "table>\n",
            answers.in_time, answers.close, answers.late, answers.wrong_id, answers.harmed, answers.not_sent,
            answers.not_taken);
        const HostComplaints& log = m_facts.complaints;
        Write(
            "<p>The host's own log: {} setpoints not sent in time, {} answers missing, {} with a foreign ID, "
            "{} receive "
            "errors; {} lines dropped.</p>\n",
            log.unsent_setpoints, log.missing_answers, log.foreign_answers, log.receive_errors,
            m_facts.status.log_dropped);
    }

    void WriteStreams() {
        Write(
            "<h2>Streams</h2>\n<table><tr><th>stream</th><th>sent</th><th>received</th><th>lost</"
            "th><th>invalid</th>"
            "<th>rate, Hz</th><th>period jitter, us</th><th></th></tr>\n");
        for (const StreamFigures& stream : m_figures.streams) {
            Write("<tr><td>{}</td>", EscapeHtml(stream.name));
            for (const std::string& cell : CellsOf(stream)) Write("<td>{}</td>", cell);
            Write("<td class=\"text note\">{}</td></tr>\n", EscapeHtml(stream.remark));
        }
        Write("</table>\n");
    }

    void WriteTimes() {
        Write("<h2>Times</h2>\n<table><tr><th>us</th><th>p50</th><th>p99</th><th>max</th></tr>\n");
        const auto row = [&](const char* name, const Spread& spread) {
            Write("<tr><td>{}</td><td>{:.1f}</td><td>{:.1f}</td><td>{:.1f}</td></tr>\n", name, spread.p50,
                  spread.p99, spread.max);
        };
        row("command: actual less planned send time", m_figures.instrument);
        row("setpoint: actual less planned send time", m_figures.lateness);
        row("command sent to setpoint received", m_figures.command_to_setpoint);
        row("setpoint received to answer sent", m_figures.answer);
        Write("</table>\n");
    }

    std::vector<PlotMark> Marks() const {
        std::vector<PlotMark> marks;
        for (const Step& step : m_scenario.steps) marks.push_back({step.at.count(), ToString(step)});
        return marks;
    }

    void WritePlots() {
        std::vector<double> time;
        std::vector<double> lateness;
        std::vector<double> latency;
        std::vector<double> command_rms;
        std::vector<double> setpoint_rms;
        for (const CheckedSetpoint& checked : m_facts.checked) {
            const SetpointRecord& setpoint = m_facts.setpoints[checked.setpoint];
            if (!checked.command) continue;
            time.push_back(SecondsSince(m_facts, setpoint.arrived));
            lateness.push_back(MicrosecondsOf(setpoint.arrived - setpoint.planned));
            latency.push_back(MicrosecondsOf(setpoint.arrived - m_facts.commands[*checked.command].sent));
            command_rms.push_back(checked.command_rms);
            setpoint_rms.push_back(checked.setpoint_rms);
        }
        Write("<h2>Plots</h2>\n");
        const Slices late = Slice(time, lateness);
        Write("{}", DrawSvg({"Setpoint: actual less planned send time",
                             "s after the first command",
                             "us",
                             false,
                             {Range(late, "range", "a"), Median(late, "median", "b")},
                             Marks()}));
        Write("{}", DrawSvg(Histogram(lateness)));
        const Slices whole = Slice(time, latency);
        Write("{}", DrawSvg({"Command sent to setpoint received",
                             "s after the first command",
                             "us",
                             false,
                             {Range(whole, "range", "a"), Median(whole, "median", "b")},
                             Marks()}));
        const Slices commands = Slice(time, command_rms);
        const Slices setpoints = Slice(time, setpoint_rms);
        Write("{}", DrawSvg({"Managed modes of command and setpoint",
                             "s after the first command",
                             "rms",
                             false,
                             {Range(commands, "command", "b"), Median(setpoints, "setpoint", "a")},
                             Marks()}));
        if (const PlotSeries missing = Missing(); !missing.x.empty())
            Write("{}", DrawSvg({"Valid commands under INS control without a setpoint",
                                 "s after the first command",
                                 "in each 0.1 s",
                                 false,
                                 {missing},
                                 Marks()}));
    }

    static Plot Histogram(const std::vector<double>& values) {
        constexpr std::size_t BINS = 120;
        const Spread spread = SpreadOf(values);
        // Wide enough for all but the rarest; those stand together in the last bin.
        const double top = std::min(spread.max, std::max(10.0 * spread.p99, 1.0));
        const double low =
            values.empty() ? 0.0 : std::min(*std::min_element(values.begin(), values.end()), 0.0);
        const double width = std::max((top - low) / BINS, 1e-3);
        PlotSeries bars{"setpoints", "a", PlotSeries::Style::Bars, {}, std::vector<double>(BINS, 0.0), {}};
        for (std::size_t bin = 0; bin < BINS; ++bin) bars.x.push_back(low + width * static_cast<double>(bin));
        for (const double value : values)
            bars.y[std::min(static_cast<std::size_t>((value - low) / width), BINS - 1)] += 1.0;
        return {
            "Distribution of actual less planned send time", "us", "setpoints", true, {std::move(bars)}, {}};
    }

    PlotSeries Missing() const {
        PlotSeries bars{"commands", "bad", PlotSeries::Style::Bars, {}, {}, {}};
        bool any = false;
        for (std::size_t i = 0; i < m_facts.commands.size(); ++i) {
            const CommandFate fate = m_accounts.fates[i];
            const auto bin = static_cast<std::size_t>(
                std::max(10.0 * SecondsSince(m_facts, m_facts.commands[i].time_stamp), 0.0));
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

    void WriteHistory() {
        Write("<h2>Handover and events</h2>\n<table><tr><th>s</th><th></th></tr>\n");
        const auto row = [&](double time, const std::string& what) {
            Write("<tr><td>{:.6f}</td><td class=\"text\">{}</td></tr>\n", time, EscapeHtml(what));
        };
        for (const auto& [time, what] : m_figures.handover) row(time, what);
        for (const Recovery& recovery : m_accounts.recoveries) {
            const auto text = [](const auto& duration) {
                return duration ? fmt::format("{:.3f} ms", MicrosecondsOf(*duration) / 1e3)
                                : std::string("never");
            };
            row(SecondsSince(m_facts, recovery.returned),
                fmt::format("M4 is back: first setpoint after {}, in step after {}",
                            text(recovery.first_setpoint), text(recovery.in_step)));
        }
        Write("</table>\n");
        if (m_facts.stop_took)
            Write("<p>The host ended {:.1f} ms after it was told to, with code {}.</p>\n",
                  MicrosecondsOf(*m_facts.stop_took) / 1e3, m_facts.host_exit ? *m_facts.host_exit : -1);
    }

    void WriteNotes() {
        Write(
            "<h2>How to read this</h2>\n<ul class=\"note\">\n"
            "<li>The expected content of each setpoint is worked out by the rig alone, in double precision, "
            "from the "
            "command, the control mode and what M4 applied last; the tolerance is what single precision can "
            "lose.</li>\n"
            "<li>Arrival times at M4 are the kernel's, taken as the packet reaches the socket, so that the "
            "rig's own "
            "wake-up is not in them.</li>\n"
            "<li>While the telescope has control, setpoints are paced by field stabilisation, which is no "
            "part of "
            "this bench. None flow before the first handover, and the reference shape that the handover "
            "takes up is "
            "zero.</li>\n"
            "<li>Where the fate of an answer can't be told from its time, the setpoint that follows tells "
            "it: its "
            "content differs with what the system believes M4 to have applied.</li>\n</ul>\n");
    }

    const Scenario& m_scenario;
    const RunFacts& m_facts;
    const Accounts& m_accounts;
    const Figures& m_figures;
    std::string m_html;
};

}  // namespace

std::string MakeHtmlReport(const Scenario& scenario, const RunFacts& facts, const Accounts& accounts,
                           const Figures& figures, const std::string& machine) {
    return Report(scenario, facts, accounts, figures).Make(machine);
}

void WriteTextFile(const std::filesystem::path& file, const std::string& text) {
    std::ofstream output(file, std::ios::binary | std::ios::trunc);
    output << text;
    output.close();
    if (!output) throw std::runtime_error(fmt::format("{}: can't be written", file.string()));
}

}  // namespace vosk::rig
