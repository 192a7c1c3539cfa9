#pragma once

// What a camera has to say when the run is over: its verdict, its tables, its pictures.

#include "judge/cameraVerdict.hpp"
#include "report/report.hpp"

namespace vosk::rig {

PeerAccount DescribeCamera(const Scenario& scenario, const RunFacts& run, const CameraScene& scene,
                           std::uint64_t seed, const CameraFacts& facts);

}  // namespace vosk::rig
