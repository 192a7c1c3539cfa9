#pragma once

// The simulation that stands for the imaging cameras: four probes that see the same residual of the light,
// the disturbance less what M5 did, each with a little noise of its own.

#include "disturbance.hpp"
#include "peers/m5Peer.hpp"
#include "peers/recordStreams.hpp"

#include <random>

namespace vosk::rig {

class EcmwfSim final : public StreamPeer {
public:
    EcmwfSim(const Scenario& scenario, Ports& ports, const M5Peer& m5);
    ~EcmwfSim() override { Stop(); }

    void AddTo(HostDocument& document) const override;
    PeerAccount Account(const RunFacts& facts) const override;

    const AppendLog<Sample<defs::WfsPayload>>& Errors() const { return m_sender.Log(); }

private:
    void OnGridPoint(time_point point) override;
    time_point SendDelayed(time_point now) override { return m_sender.SendDelayed(now); }
    void Die() override;
    void Return() override;

    const StreamSettings& m_settings;
    const M5Peer& m_m5;
    const std::uint16_t m_port;
    RecordSender<defs::WfsPayload> m_sender;
    const Disturbance m_disturbance;
    std::mt19937_64 m_random;  // this thread only
    std::normal_distribution<double> m_noise;
};

}  // namespace vosk::rig
