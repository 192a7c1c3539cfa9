#pragma once

// What the host and the run themselves must hold to, whoever the peers are.

#include "runFacts.hpp"
#include "scenario.hpp"

#include <string>
#include <vector>

namespace vosk::rig {

// What is wrong, a sentence each.
std::vector<std::string> JudgeHost(const Scenario& scenario, const RunFacts& facts);

}  // namespace vosk::rig
