#pragma once

// Starts the process of the flowgraph, kills it and starts it again as the scenario says, and keeps what it
// wrote down in all its lives.

#include "peers/absences.hpp"
#include "peers/flowgraphProcess.hpp"
#include "peers/peer.hpp"

#include <pktwire/udpSocket.hpp>

#include <sys/types.h>
#include <vector>

namespace vosk::rig {

class Flowgraph final : public Peer {
public:
    // Throws std::runtime_error if there is no memory for its log.
    explicit Flowgraph(const Scenario& scenario);
    ~Flowgraph() override { Kill(); }

    void AddTo(HostDocument& document) const override;
    void Start(time_point first) override;
    void TakeStep(const StepAction& action) override;
    void FallSilent() override;
    void Stop() override {}
    PeerAccount Account(const RunFacts& facts) const override;

    // In the order of time. After FallSilent().
    std::vector<FlowgraphRecord> Records() const;
    const Absences& GetAbsences() const { return m_absences; }
    time_point SilentSince() const { return m_silent_since; }

private:
    void Spawn();
    void Kill();

    const Scenario& m_scenario;
    const StreamSettings& m_settings;
    pktwire::detail::FileDescriptor m_log;  // a file in memory, which the process appends to
    pid_t m_pid = -1;
    std::uint32_t m_lives = 0;
    Absences m_absences;
    time_point m_silent_since = time_point::max();
};

}  // namespace vosk::rig
