#pragma once

// The books of the AO loop as the report shows them.

#include "judge/accounting.hpp"
#include "report/report.hpp"

#include <cstdint>

namespace vosk::rig {

// `overruns`: commands never sent, as the rig itself woke too late.
PeerAccount DescribeLoop(const Scenario& scenario, const RunFacts& run, const LoopFacts& loop,
                         const Accounts& accounts, std::uint64_t overruns);

}  // namespace vosk::rig
