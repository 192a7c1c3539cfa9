#pragma once

// What the report of a run says, apart from its looks: the table on the terminal and the HTML report are two
// renderings of it. Made once, after the run, from the facts of the run and the account of each peer.

#include "report/figures.hpp"
#include "report/svgPlot.hpp"

#include <span>
#include <string>
#include <utility>
#include <vector>

namespace vosk::rig {

struct ReportSection {
    std::string title;
    std::vector<std::string> head;  // a column without a heading holds text, the others numbers
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> notes;  // sentences below the table
};

// What happened, and when: in seconds after the first command.
using History = std::vector<std::pair<double, std::string>>;

// What one peer has to say when the run is over. Each part may be empty.
struct PeerAccount {
    std::vector<std::string> violations;  // empty: the peer got what was promised
    std::string achievement;              // what a verdict that holds says of it
    std::vector<ReportSection> sections;
    std::vector<StreamFigures> streams;
    std::vector<FaultFigures> faults;
    std::vector<std::pair<std::string, Spread>> times;
    History history;
    std::vector<Plot> plots;
    std::vector<std::string> pictures;  // as HTML
    std::vector<std::string> notes;     // how to read its part of the report
};

struct RunReport {
    std::string name;
    std::string description;
    std::vector<ReportSection> sections;
    std::vector<Plot> plots;
    std::vector<std::string> pictures;
    std::vector<std::string> notes;
    std::string verdict;
    std::vector<std::string> violations;
    std::string advice;  // where the machine withheld something

    bool Holds() const { return violations.empty(); }
};

// `violations`: of the host and of the run itself.
RunReport MakeReport(const Scenario& scenario, const RunFacts& facts, std::vector<std::string> violations,
                     std::span<const PeerAccount> accounts);

}  // namespace vosk::rig
