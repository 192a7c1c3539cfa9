#pragma once

// What a camera has to say when the run is over: its verdict, its tables, its pictures.

#include "judge/cameraVerdict.hpp"
#include "peers/cameraPeer.hpp"

namespace vosk::rig {

class CameraJudge final : public Judge {
public:
    // The camera outlives it.
    CameraJudge(const Scenario& scenario, const CameraPeer& camera)
        : m_scenario(scenario), m_camera(camera) {}

    PeerAccount Account(const RunFacts& facts) const override;

private:
    const Scenario& m_scenario;
    const CameraPeer& m_camera;
};

}  // namespace vosk::rig
