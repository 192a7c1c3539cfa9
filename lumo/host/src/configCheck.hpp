#pragma once

// Finds what is wrong with a configuration document and the files that it names: sets the library up as a run
// does, under a review that goes on behind a fault, and looks for keys that were not read. A finding is a
// problem, which a run refuses, or a key that nothing reads; or a warning, where the set-up of a run warns.
// Meets the network as a run does, and shared memory under names of its own, which it removes. For a process
// that does nothing else.

#include <gim/config.hpp>
#include <oru/configng/pliConfigReview.hpp>

#include <string>
#include <vector>

namespace vosk::host {

// In the order in which they were found. The document must be loaded.
std::vector<oru::configng::PliConfigFinding> CheckConfig(const gim::Config& config);

// "vosk.yaml:12: cfg.m4.output[0].cpu: ...", and "warning: " before the text of a warning.
std::string ToText(const oru::configng::PliConfigFinding& finding);

}  // namespace vosk::host
