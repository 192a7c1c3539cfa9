#pragma once

// The steps of a scenario, from the document and into words.

#include "scenarioSection.hpp"

namespace vosk::rig {

Step ReadStep(const Section& section);

}  // namespace vosk::rig
