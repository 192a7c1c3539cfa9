#pragma once

// M5: follows each command through a first-order lag, and tells where it is, at twice the loop's rate.

#include "host/ports.hpp"
#include "peers/recordStreams.hpp"
#include "peers/streamPeer.hpp"
#include "skyRotation.hpp"
#include "telescope/mirror.hpp"

#include <vosk/defs/wireRecords.hpp>

#include <memory>

namespace vosk::rig {

class M5Peer final : public StreamPeer {
public:
    // `mirror`: two modes, in M5's coordinates.
    M5Peer(const Scenario& scenario, Ports& ports, std::shared_ptr<Mirror> mirror);
    ~M5Peer() override { Stop(); }

    void AddTo(HostDocument& document) const override;
    PeerAccount Account(const RunFacts& facts) const override;

    // In its own coordinates. Any thread.
    TipTilt PositionAt(time_point time) const;

    const AppendLog<Sample<defs::M5Command::Payload>>& Commands() const { return m_receiver.Log(); }
    const RecordReceiver<defs::M5Command::Payload>& Receiver() const { return m_receiver; }
    const AppendLog<Sample<defs::M5PttAct::Payload>>& Positions() const { return m_sender.Log(); }

private:
    void OnGridPoint(time_point point) override;
    void Receive(std::chrono::nanoseconds timeout) override;
    time_point SendDelayed(time_point now) override { return m_sender.SendDelayed(now); }
    void Die() override;
    void Return() override;

    const StreamSettings& m_settings;
    const std::uint16_t m_input_port;
    const std::uint16_t m_output_port;
    RecordSender<defs::M5PttAct::Payload> m_sender;
    RecordReceiver<defs::M5Command::Payload> m_receiver;
    const std::shared_ptr<Mirror> m_mirror;
};

}  // namespace vosk::rig
