#include "report/htmlReport.hpp"

#include "report/svgPlot.hpp"

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

class Page {
public:
    Page(const Scenario& scenario, const RunFacts& facts, const Accounts& accounts)
        : m_scenario(scenario), m_facts(facts), m_accounts(accounts) {}

    std::string Make(const RunReport& report, const std::string& machine) {
        Write(
            "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>vosk-rig: "
            "{}</title>\n{}</head>"
            "<body>\n",
            EscapeHtml(m_scenario.name), STYLE);
        Write("<h1>Bench telescope: {}</h1>\n<p>{}</p>\n<p class=\"note\">{}</p>\n",
              EscapeHtml(m_scenario.name), EscapeHtml(m_scenario.description), EscapeHtml(machine));
        WriteVerdict(report);
        for (const ReportSection& section : report.sections) WriteSection(section);
        WritePlots();
        WriteNotes();
        Write("</body></html>\n");
        return std::move(m_html);
    }

private:
    template <class... Args>
    void Write(fmt::format_string<Args...> format, Args&&... args) {
        fmt::format_to(Output(m_html), format, std::forward<Args>(args)...);
    }

    void WriteVerdict(const RunReport& report) {
        Write("<div class=\"verdict{}\">{}<ul>\n", report.holds ? "" : " no", EscapeHtml(report.verdict));
        for (const std::string& violation : report.violations) Write("<li>{}</li>\n", EscapeHtml(violation));
        Write("</ul></div>\n");
        if (!report.advice.empty()) Write("<p>{}</p>\n", EscapeHtml(report.advice));
    }

    void WriteSection(const ReportSection& section) {
        if (section.rows.empty() && section.notes.empty()) return;
        Write("<h2>{}</h2>\n", EscapeHtml(section.title));
        if (!section.rows.empty()) {
            Write("<table>");
            WriteRow("th", section.head, section.head);
            for (const auto& row : section.rows) WriteRow("td", row, section.head);
            Write("</table>\n");
        }
        for (const std::string& note : section.notes) Write("<p>{}</p>\n", EscapeHtml(note));
    }

    void WriteRow(const char* tag, const std::vector<std::string>& row,
                  const std::vector<std::string>& head) {
        Write("<tr>");
        for (std::size_t i = 0; i < row.size(); ++i)
            Write("<{0}{1}>{2}</{0}>", tag, head[i].empty() ? " class=\"text\"" : "", EscapeHtml(row[i]));
        Write("</tr>\n");
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
        // Wide enough for all but the rarest; those stand together in one bin more.
        const double low = std::min(spread.min, 0.0);
        const double top = std::min(spread.max, std::max(10.0 * spread.p99, 1.0));
        const double width = std::max((top - low) / BINS, 1e-3);
        Plot plot{"Distribution of actual less planned send time", "us", "setpoints", true, {}, {}};
        PlotSeries bars{"setpoints", "a", PlotSeries::Style::Bars, {}, std::vector<double>(BINS + 1, 0.0),
                        {}};
        for (std::size_t bin = 0; bin <= BINS; ++bin)
            bars.x.push_back(low + width * static_cast<double>(bin));
        for (const double value : values)
            bars.y[std::min(static_cast<std::size_t>((value - low) / width), BINS)] += 1.0;
        if (spread.max > top)
            plot.marks.push_back({bars.x.back(), fmt::format("more, up to {:.0f} us", spread.max)});
        plot.series.push_back(std::move(bars));
        return plot;
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
    std::string m_html;
};

}  // namespace

std::string MakeHtmlReport(const RunReport& report, const Scenario& scenario, const RunFacts& facts,
                           const Accounts& accounts, const std::string& machine) {
    return Page(scenario, facts, accounts).Make(report, machine);
}

void WriteTextFile(const std::filesystem::path& file, const std::string& text) {
    std::ofstream output(file, std::ios::binary | std::ios::trunc);
    output << text;
    output.close();
    if (!output) throw std::runtime_error(fmt::format("{}: can't be written", file.string()));
}

}  // namespace vosk::rig
