#pragma once

// Whether gpao_in tells what M4 applied: the leading modes of its last setpoint less the reference shape.
// After the run.

#include "judge/hopAccount.hpp"
#include "peers/flowgraphProcess.hpp"
#include "peers/loopRecords.hpp"

#include <span>

namespace vosk::rig {

struct AppliedFacts {
    std::span<const SetpointRecord> setpoints;
    std::span<const common::shmif::GpaoVector> applied;  // what each of them makes of M4
    std::span<const GpaoRecord> gpao;
    std::chrono::nanoseconds margin;  // an answer may be so old before a record must tell of it
};

// A record is right, wrong, or missing: it tells an older answer than it must, or none.
HopAccount CheckApplied(const AppliedFacts& facts);

}  // namespace vosk::rig
