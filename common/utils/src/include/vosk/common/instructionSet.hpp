#pragma once

// The heavy loops are compiled once for each instruction set; the one to run is a choice of the process.

#include <hwy/targets.h>

namespace vosk::common {

// Finds the CPU's instruction sets, unless they are known or chosen already. Constructors call it, or the
// first call of a loop would do it, within a frame.
inline void ChooseInstructionSet() {
    if (!hwy::GetChosenTarget().IsInitialized()) hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

}  // namespace vosk::common
