#pragma once

// The report of a run: one HTML file with figures, plots and the verdict, which needs nothing but itself.

#include "accounting.hpp"
#include "figures.hpp"

#include <filesystem>
#include <string>

namespace vosk::rig {

std::string MakeHtmlReport(const Scenario& scenario, const RunFacts& facts, const Accounts& accounts,
                           const Figures& figures, const std::string& machine);

// Throws std::runtime_error if the file can't be written.
void WriteTextFile(const std::filesystem::path& file, const std::string& text);

}  // namespace vosk::rig
