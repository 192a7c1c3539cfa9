#pragma once

// GPAO between the wavefront sensor and its flowgraph: makes the flowgraph, and decides from what both wrote
// down whether coefficients and commands are what they must be. Sends and receives nothing itself.

#include "calibration.hpp"
#include "judge/gpaoAccount.hpp"
#include "peers/cameraPeer.hpp"
#include "peers/flowgraph.hpp"

#include <filesystem>
#include <memory>
#include <vector>

namespace vosk::rig {

// The flowgraph and the judge, in the order in which they start; and the host's matrices, below `files`.
// `camera`: the sensor that the host takes the coefficients of, which outlives them.
const Flowgraph* AddGpaoPeers(const Scenario& scenario, const CameraPeer& camera,
                              const std::filesystem::path& files, std::vector<std::unique_ptr<Peer>>& peers);

class GpaoLoop final : public Judge {
public:
    GpaoLoop(const Scenario& scenario, const CameraPeer& camera, const Flowgraph& flowgraph)
        : m_scenario(scenario), m_camera(camera), m_flowgraph(flowgraph) {}

    PeerAccount Account(const RunFacts& facts) const override;

private:
    Plot PlotModes(const GpaoAccounts& accounts, const GpaoFacts& facts, const RunFacts& run) const;

    const Scenario& m_scenario;
    const CameraPeer& m_camera;
    const Flowgraph& m_flowgraph;
};

}  // namespace vosk::rig
