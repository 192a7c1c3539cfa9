#pragma once

// The table that ends a run on the terminal.

#include "report/report.hpp"

#include <string>

namespace vosk::rig {

std::string MakeTable(const RunReport& report);

}  // namespace vosk::rig
