#pragma once

// Pictures of one frame, for the report: what the camera saw with the spots that the host found in it, and
// the slopes over a wavefront sensor's pupil. The frame is rendered again; it is the same, bit for bit.

#include "judge/cameraVerdict.hpp"

#include <string>

namespace vosk::rig {

// HTML. A part of the frame about the middle of a wavefront sensor, or about an imaging camera's star.
std::string DrawFrame(const CameraScene& scene, std::uint64_t seed, const FrameRecord& frame,
                      std::span<const defs::Slope> slopes, const std::vector<SpotRegion>& regions);

// HTML. An arrow a sub-aperture, from where its spot should be, longer than in the frame.
std::string DrawSlopes(const CameraScene& scene, const FrameRecord& frame,
                       std::span<const defs::Slope> slopes);

}  // namespace vosk::rig
