#pragma once

// What the report of a run says, apart from its looks: the table on the terminal and the HTML report are two
// renderings of it. Made once, after the run.

#include "judge/accounting.hpp"
#include "report/figures.hpp"

#include <string>
#include <vector>

namespace vosk::rig {

struct ReportSection {
    std::string title;
    std::vector<std::string> head;  // a column without a heading holds text, the others numbers
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> notes;  // sentences below the table
};

struct RunReport {
    std::vector<ReportSection> sections;
    std::string verdict;
    bool holds = false;
    std::vector<std::string> violations;
    std::string advice;  // where the machine withheld something
};

RunReport MakeReport(const Scenario& scenario, const RunFacts& facts, const Accounts& accounts,
                     const Figures& figures);

}  // namespace vosk::rig
