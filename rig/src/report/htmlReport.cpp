#include "report/htmlReport.hpp"

#include <fmt/format.h>

#include <iterator>

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

class Page {
public:
    std::string Make(const RunReport& report, const std::string& machine) {
        Write(
            "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>vosk-rig: "
            "{}</title>\n{}</head>"
            "<body>\n",
            EscapeHtml(report.name), STYLE);
        Write("<h1>Bench telescope: {}</h1>\n<p>{}</p>\n<p class=\"note\">{}</p>\n", EscapeHtml(report.name),
              EscapeHtml(report.description), EscapeHtml(machine));
        WriteVerdict(report);
        for (const ReportSection& section : report.sections) WriteSection(section);
        Write("<h2>Plots</h2>\n");
        for (const Plot& plot : report.plots) Write("{}", DrawSvg(plot));
        for (const std::string& picture : report.pictures) Write("{}", picture);
        Write("<h2>How to read this</h2>\n<ul class=\"note\">\n");
        for (const std::string& note : report.notes) Write("<li>{}</li>\n", EscapeHtml(note));
        Write("</ul>\n</body></html>\n");
        return std::move(m_html);
    }

private:
    template <class... Args>
    void Write(fmt::format_string<Args...> format, Args&&... args) {
        fmt::format_to(Output(m_html), format, std::forward<Args>(args)...);
    }

    void WriteVerdict(const RunReport& report) {
        Write("<div class=\"verdict{}\">{}<ul>\n", report.Holds() ? "" : " no", EscapeHtml(report.verdict));
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

    std::string m_html;
};

}  // namespace

std::string MakeHtmlReport(const RunReport& report, const std::string& machine) {
    return Page().Make(report, machine);
}

}  // namespace vosk::rig
