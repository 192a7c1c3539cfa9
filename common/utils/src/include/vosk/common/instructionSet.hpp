#pragma once

// The heavy loops are compiled once for each instruction set; the one to run is a choice of the process.

#include <hwy/targets.h>

namespace vosk::common {

// Finds out what the CPU has, unless that is known or told already. For constructors: the first call of a
// loop would do it otherwise, and that may be a frame.
inline void ChooseInstructionSet() {
    if (!hwy::GetChosenTarget().IsInitialized()) hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

}  // namespace vosk::common
