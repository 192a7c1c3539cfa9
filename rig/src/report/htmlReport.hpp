#pragma once

// The report of a run: one HTML file with figures, plots and the verdict, which needs nothing but itself.

#include "report/report.hpp"

#include <filesystem>
#include <string>

namespace vosk::rig {

// `machine` says where the run took place.
std::string MakeHtmlReport(const RunReport& report, const Scenario& scenario, const RunFacts& facts,
                           const Accounts& accounts, const std::string& machine);

// Throws std::runtime_error if the file can't be written.
void WriteTextFile(const std::filesystem::path& file, const std::string& text);

}  // namespace vosk::rig
