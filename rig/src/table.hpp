#pragma once

// The table that ends a run on the terminal.

#include "accounting.hpp"
#include "figures.hpp"

#include <string>

namespace vosk::rig {

std::string MakeTable(const Scenario& scenario, const RunFacts& facts, const Accounts& accounts,
                      const Figures& figures);

}  // namespace vosk::rig
