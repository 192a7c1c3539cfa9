#pragma once

// M5: follows each command through a first-order lag, and tells where it is, at twice the loop's rate.

#include "host/ports.hpp"
#include "peers/recordStreams.hpp"
#include "peers/streamPeer.hpp"
#include "skyRotation.hpp"

#include <vosk/defs/wireRecords.hpp>

#include <mutex>

namespace vosk::rig {

class M5Peer final : public StreamPeer {
public:
    M5Peer(const Scenario& scenario, Ports& ports);
    ~M5Peer() override { Stop(); }

    void AddTo(HostDocument& document) const override;
    PeerAccount Account(const RunFacts& facts) const override;

    // In its own coordinates; `time` is not before the last command. Any thread.
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
    void Follow(time_point time, TipTilt target);

    const StreamSettings& m_settings;
    const std::uint16_t m_input_port;
    const std::uint16_t m_output_port;
    RecordSender<defs::M5PttAct::Payload> m_sender;
    RecordReceiver<defs::M5Command::Payload> m_receiver;

    mutable std::mutex m_mutex;
    // Guarded by m_mutex.
    TipTilt m_start;   // where it was when the last command came
    TipTilt m_target;  // of that command
    time_point m_commanded;
};

}  // namespace vosk::rig
