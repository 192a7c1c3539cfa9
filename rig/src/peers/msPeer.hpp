#pragma once

// The main structure: follows the corrections of field stabilisation.

#include "host/ports.hpp"
#include "peers/recordStreams.hpp"
#include "peers/streamPeer.hpp"
#include "telescope/mirror.hpp"

#include <vosk/defs/wireRecords.hpp>

#include <memory>

namespace vosk::rig {

class MsPeer final : public StreamPeer {
public:
    MsPeer(const Scenario& scenario, Ports& ports, std::shared_ptr<Mirror> mirror);
    ~MsPeer() override { Stop(); }

    void AddTo(HostDocument& document) const override;
    PeerAccount Account(const RunFacts& facts) const override;

    const AppendLog<Sample<defs::MSCorrection>>& Corrections() const { return m_receiver.Log(); }
    const RecordReceiver<defs::MSCorrection>& Receiver() const { return m_receiver; }

private:
    void Receive(std::chrono::nanoseconds timeout) override;
    void Die() override;
    void Return() override;

    const StreamSettings& m_settings;
    const std::uint16_t m_port;
    RecordReceiver<defs::MSCorrection> m_receiver;
    const std::shared_ptr<Mirror> m_mirror;
};

}  // namespace vosk::rig
