#pragma once

// PFS: tells what its guide probes see and where the telescope points, and takes the corrections. The
// pointing turns fast enough for a wrong rotation between M5 and the sky to show.

#include "host/ports.hpp"
#include "peers/recordStreams.hpp"
#include "peers/streamPeer.hpp"
#include "skyRotation.hpp"

#include <vosk/defs/wireRecords.hpp>

namespace vosk::rig {

class PfsPeer final : public StreamPeer {
public:
    PfsPeer(const Scenario& scenario, Ports& ports);
    ~PfsPeer() override { Stop(); }

    void AddTo(HostDocument& document) const override;
    PeerAccount Account(const RunFacts& facts) const override;

    const AppendLog<Sample<pfs::PFSTargetData>>& Measurements() const { return m_sender.Log(); }
    const AppendLog<Sample<pfs::PFSCorrection>>& Corrections() const { return m_receiver.Log(); }
    const RecordReceiver<pfs::PFSCorrection>& Receiver() const { return m_receiver; }

private:
    void OnGridPoint(time_point point) override;
    void Receive(std::chrono::nanoseconds timeout) override;
    time_point SendDelayed(time_point now) override { return m_sender.SendDelayed(now); }
    void Die() override;
    void Return() override;

    const StreamSettings& m_settings;
    const std::uint16_t m_input_port;
    const std::uint16_t m_output_port;
    RecordSender<pfs::PFSTargetData> m_sender;
    RecordReceiver<pfs::PFSCorrection> m_receiver;
};

}  // namespace vosk::rig
