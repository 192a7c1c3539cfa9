#include "report/table.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace vosk::rig {
namespace {

using Row = std::vector<std::string>;

// The first column and those without a heading to the left, numbers to the right.
std::string FormatRow(const Row& row, const Row& head, const std::vector<std::size_t>& widths) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
        const bool left = i == 0 || head[i].empty();
        line +=
            left ? fmt::format("  {:<{}}", row[i], widths[i]) : fmt::format("  {:>{}}", row[i], widths[i]);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

std::string FormatSection(const ReportSection& section) {
    std::string text = fmt::format("\n{}\n", section.title);
    std::vector<std::size_t> widths(section.head.size());
    for (std::size_t i = 0; i < widths.size(); ++i) {
        widths[i] = section.head[i].size();
        for (const Row& row : section.rows) widths[i] = std::max(widths[i], row[i].size());
    }
    if (!section.rows.empty()) text += FormatRow(section.head, section.head, widths);
    for (const Row& row : section.rows) text += FormatRow(row, section.head, widths);
    for (const std::string& note : section.notes) text += fmt::format("  {}\n", note);
    return text;
}

}  // namespace

std::string MakeTable(const RunReport& report) {
    std::string text;
    for (const ReportSection& section : report.sections)
        if (!section.rows.empty() || !section.notes.empty()) text += FormatSection(section);
    text += fmt::format("\nVERDICT: {}\n", report.Holds() ? "holds" : "does not hold");
    for (const std::string& violation : report.violations) text += fmt::format("  - {}\n", violation);
    if (!report.advice.empty()) text += report.advice + "\n";
    return text;
}

}  // namespace vosk::rig
