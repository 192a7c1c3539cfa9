#pragma once

// The AO loop between instrument and M4: what the host must know of it, the check of each setpoint while the
// run goes on, and the books that decide whether the loop kept its promise. Sends and receives nothing
// itself.

#include "calibration.hpp"
#include "judge/accounting.hpp"
#include "judge/checkThread.hpp"
#include "peers/instrument.hpp"
#include "peers/m4Peer.hpp"
#include "peers/peer.hpp"

namespace vosk::rig {

// What the host learns of its AO tasks.
void AddAoTasks(const Scenario& scenario, const LoopCalibration& calibration, HostDocument& document);

class AoLoop final : public Peer {
public:
    // Stops after both peers, so that all that M4 received is checked.
    AoLoop(const Scenario& scenario, const LoopCalibration& calibration, const ModeTimeline& modes,
           const Instrument& instrument, M4Peer& m4);

    void AddTo(HostDocument& document) const override;
    void Start(time_point first) override;
    std::string Progress() const override;
    void Stop() override;
    PeerAccount Account(const RunFacts& facts) const override;

private:
    const Scenario& m_scenario;
    const LoopCalibration& m_calibration;
    const Instrument& m_instrument;
    const M4Peer& m_m4;
    CheckThread m_check;
};

}  // namespace vosk::rig
