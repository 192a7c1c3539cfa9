#pragma once

// The books of GPAO's flowgraph: which frames of the wavefront sensor become records, what their coefficients
// are worth, and what the flowgraph makes of them. Pure functions of what the peers wrote down.

#include "judge/coefficientPrediction.hpp"
#include "judge/hopAccount.hpp"
#include "peers/absences.hpp"
#include "peers/cameraRecords.hpp"
#include "peers/flowgraphProcess.hpp"

#include <cmath>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vosk::rig {

struct GpaoFacts {
    std::span<const FrameRecord> frames;
    std::span<const GpaoRecord> flowgraph;
    std::span<const Absences::Absence> absences;  // of the flowgraph
    std::function<ModeValues(Seconds)> truth;     // of CoefficientPredictor
    std::function<CoefficientPrediction(Seconds)> predict;
    std::size_t stride = 1;  // of the records that are held against the prediction
    std::size_t ring = 0;    // frames with light and noise of their own; 0: all of them
    bool has_m4 = false;     // without it nothing is ever applied
    time_point first;        // of the run
    time_point until;        // the flowgraph went to rest
};

// Of coefficients in units of their noise.
struct CoefficientErrors {
    std::uint64_t records = 0;
    std::uint64_t values = 0;
    double squares = 0.0;
    std::uint64_t outliers = 0;

    double InNoise() const { return values == 0 ? 0.0 : std::sqrt(squares / static_cast<double>(values)); }
};

struct GpaoAccounts {
    HopAccount frames{"frame in gpao_in"};
    HopAccount commands{"GPAO command in gpao_in"};
    std::uint64_t dead = 0;           // whole frames that no flowgraph was there for
    std::uint64_t lost_inputs = 0;    // sample IDs that are missing between two records of one life
    std::uint64_t unnumbered = 0;     // whole frames that no sample ID was counted for
    std::uint64_t wrong_ids = 0;      // records whose ID counts coefficients that no frame gave
    std::uint64_t wrong_answers = 0;  // of the flowgraph, against its law
    std::uint64_t wrong_applied = 0;  // records that tell of an M4 that is not there
    CoefficientErrors errors;
    std::vector<std::optional<std::size_t>> frame_of;  // of each record
    std::vector<double> answering;                     // microseconds from a record taken to its answer given
    std::vector<std::string> violations;
};

GpaoAccounts MakeGpaoAccounts(const Scenario& scenario, const GpaoFacts& facts);

}  // namespace vosk::rig
