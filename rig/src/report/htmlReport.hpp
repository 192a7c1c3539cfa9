#pragma once

// The report of a run: one HTML file with figures, plots and the verdict, which needs nothing but itself.

#include "report/report.hpp"

#include <string>

namespace vosk::rig {

// `machine` says where the run took place.
std::string MakeHtmlReport(const RunReport& report, const std::string& machine);

}  // namespace vosk::rig
