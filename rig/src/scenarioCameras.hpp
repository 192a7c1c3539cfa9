#pragma once

// What a scenario says of cameras: their settings, and the steps that change them.

#include "scenarioSection.hpp"

namespace vosk::rig {

CameraSettings ReadCamera(const Section& section);
// One of 'stream', 'rate' and 'window'.
StepAction ReadCameraStep(const Section& section);
// An odd one means another thing to each kind of camera.
void ReadBox(const Section& section, std::array<std::uint32_t, 2>& box);

}  // namespace vosk::rig
