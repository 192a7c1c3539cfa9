#pragma once

// What the instrument hears of the telescope: makes the listener of the four AO streams, and decides from
// what it and the mirrors wrote down whether they told the truth. Sends and receives nothing itself.

#include "judge/fieldLoop.hpp"
#include "peers/aoStreams.hpp"
#include "peers/instrument.hpp"
#include "peers/m4Peer.hpp"

#include <memory>
#include <vector>

namespace vosk::rig {

class AoStreamsLoop final : public Judge {
public:
    struct Peers {
        const AoStreamsPeer& listener;
        const Instrument& instrument;
        const M4Peer& m4;
        const FieldLoop* field;  // null: there is none
    };
    AoStreamsLoop(const Scenario& scenario, Peers peers) : m_scenario(scenario), m_peers(peers) {}

    PeerAccount Account(const RunFacts& facts) const override;

private:
    const Scenario& m_scenario;
    const Peers m_peers;
};

}  // namespace vosk::rig
