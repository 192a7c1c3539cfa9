#pragma once

// The loop of field stabilisation as a whole, against its prediction.

#include "disturbance.hpp"
#include "judge/fieldFacts.hpp"
#include "scenario.hpp"

#include <optional>
#include <string>
#include <vector>

namespace vosk::rig {

// The flowgraph's law: the mean error of a record, and what it makes of its last command.
TipTilt MeanErrorOf(const StreamSettings& settings, const FieldRecord& record);
TipTilt Integrate(const StreamSettings& settings, TipTilt command, TipTilt error);

// A peer of the loop, or its flowgraph, that came back.
struct LoopReturn {
    std::string who;
    time_point at;
    std::optional<std::chrono::nanoseconds> closed;  // from then on: residual as predicted, for some records
};

struct LoopFit {
    std::uint64_t samples = 0;
    std::uint64_t left_out = 0;  // while a peer was away, and until the loop had its time to close
    double disturbance_rms = 0.0;
    double residual_rms = 0.0;
    double predicted_rms = 0.0;
    double error_rms = 0.0;  // of residual less prediction

    std::vector<LoopReturn> returns;

    double Rejection() const { return residual_rms > 0.0 ? disturbance_rms / residual_rms : 0.0; }
};

// The prediction is that of a loop which no peer ever left. The fit leaves out what the absence of ECMWFSim,
// M5 or PFS spoils, until `expect.recovery` after the return: by then the loop must have closed.
LoopFit FitLoop(const Scenario& scenario, const FieldFacts& facts);

}  // namespace vosk::rig
