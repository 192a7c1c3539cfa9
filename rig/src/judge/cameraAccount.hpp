#pragma once

// What a camera has to say when the run is over: its verdict, its tables, its pictures.

#include "judge/cameraVerdict.hpp"
#include "peers/cameraPeer.hpp"

namespace vosk::rig {

// Sends and receives nothing itself.
class CameraJudge final : public Peer {
public:
    // The camera outlives it.
    CameraJudge(const Scenario& scenario, const CameraPeer& camera)
        : m_scenario(scenario), m_camera(camera) {}

    void AddTo(HostDocument&) const override {}
    void Start(time_point) override {}
    void Stop() override {}
    PeerAccount Account(const RunFacts& facts) const override;

private:
    const Scenario& m_scenario;
    const CameraPeer& m_camera;
};

}  // namespace vosk::rig
