#pragma once

// The books of field stabilisation: every sample on the way from the errors to the mirror and back, accounted
// for by its content and its ID, and the loop as a whole against its prediction. Pure functions of what the
// peers wrote down.

#include "judge/hopAccount.hpp"
#include "peers/flowgraphProcess.hpp"
#include "peers/recordStreams.hpp"
#include "scenario.hpp"

#include <vosk/defs/wireRecords.hpp>

#include <span>
#include <string>
#include <vector>

namespace vosk::rig {

struct FieldFacts {
    template <class Record>
    using Samples = std::span<const Sample<Record>>;

    Samples<defs::WfsPayload> errors;
    Samples<defs::M5PttAct::Payload> m5_positions;
    Samples<pfs::PFSTargetData> measurements;
    std::span<const FieldRecord> flowgraph;
    Samples<defs::M5Command::Payload> m5_commands;
    Samples<pfs::PFSCorrection> pfs_corrections;
    Samples<defs::MSCorrection> ms_corrections;
    time_point first;  // of all grids
    time_point until;  // what the flowgraph gave after this need not have arrived
};

struct LoopFit {
    std::uint64_t samples = 0;
    double disturbance_rms = 0.0;
    double residual_rms = 0.0;
    double predicted_rms = 0.0;
    double error_rms = 0.0;  // of residual less prediction

    double Rejection() const { return residual_rms > 0.0 ? disturbance_rms / residual_rms : 0.0; }
};

struct FieldAccounts {
    std::vector<HopAccount> hops;
    std::uint64_t lost_inputs = 0;    // sample IDs that are missing between two records of one life
    std::uint64_t wrong_answers = 0;  // of the flowgraph, against its law
    std::uint64_t off_grid = 0;       // times of input records that are no point of the grid
    LoopFit loop;
    std::vector<std::string> violations;
};

FieldAccounts MakeFieldAccounts(const Scenario& scenario, const FieldFacts& facts);

}  // namespace vosk::rig
