#pragma once

// A raw frame cleaned in the plainest way. It shares no code with the library, so that a picture shows what
// the camera saw whatever the library makes of it.

#include "cameras/cameraSensor.hpp"

#include <cstdint>
#include <span>
#include <vector>

namespace vosk::rig {

// The image out of a raw frame of the whole sensor, row by row: bias and drift subtracted, flattened, bad
// pixels replaced by the mean of their neighbours.
std::vector<float> CleanFrame(const CameraSensor& sensor, std::span<const std::uint16_t> raw);

}  // namespace vosk::rig
