#pragma once

// The books of field stabilisation: every sample on the way from the errors to the mirror and back, accounted
// for by its content and its ID, and the loop as a whole against its prediction. Pure functions of what the
// peers wrote down.

#include "judge/fieldFacts.hpp"
#include "judge/fieldFit.hpp"
#include "judge/hopAccount.hpp"
#include "scenario.hpp"

#include <string>
#include <vector>

namespace vosk::rig {

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
