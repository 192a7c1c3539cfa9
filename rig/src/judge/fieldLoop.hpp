#pragma once

// The loop of field stabilisation between its peers: makes them, and decides from what they wrote down
// whether the loop kept its promise. Sends and receives nothing itself.

#include "peers/ecmwfSim.hpp"
#include "peers/flowgraph.hpp"
#include "peers/m5Peer.hpp"
#include "peers/msPeer.hpp"
#include "peers/pfsPeer.hpp"
#include "telescope/optics.hpp"

#include <memory>
#include <vector>

namespace vosk::rig {

class FieldLoop;

// The peers and the loop, in the order in which they start. Without `optics` the mirrors stand alone, and
// ECMWFSim tells the errors; with it the cameras do.
const FieldLoop* AddFieldPeers(const Scenario& scenario, const Optics* optics, Ports& ports,
                               std::vector<std::unique_ptr<Peer>>& peers);

class FieldLoop final : public Judge {
public:
    struct Peers {
        const EcmwfSim* errors;  // null: cameras see the errors
        const M5Peer& m5;
        const PfsPeer& pfs;
        const MsPeer& ms;
        const Flowgraph& flowgraph;
    };
    FieldLoop(const Scenario& scenario, Peers peers) : m_scenario(scenario), m_peers(peers) {}

    std::string Progress() const override;
    PeerAccount Account(const RunFacts& facts) const override;

    const Peers& GetPeers() const { return m_peers; }

private:
    const Scenario& m_scenario;
    const Peers m_peers;
};

}  // namespace vosk::rig
