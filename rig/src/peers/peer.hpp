#pragma once

// One of those whom the host talks to. The run makes all peers before it starts the host, and from then on
// knows them by this interface alone. All calls come from the thread that drives the run; a peer has threads
// of its own for its streams.

#include "host/hostDocument.hpp"
#include "report/report.hpp"
#include "runFacts.hpp"

#include <string>

namespace vosk::rig {

class Peer {
public:
    Peer() = default;
    virtual ~Peer() = default;
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // What the host must know to talk to this peer.
    virtual void AddTo(HostDocument& document) const = 0;

    // The host is ready. `first` lies a little ahead: the first point of all grids, from which the times of
    // faults count. Throws std::runtime_error if a socket can't be made.
    virtual void Start(time_point first) = 0;
    // A step of the scenario, which may concern others.
    virtual void TakeStep(const StepAction&) {}
    // Its words in the line of progress, if it has any.
    virtual std::string Progress() const { return {}; }

    // Sends nothing more of its own accord, but still answers: the host comes to rest.
    virtual void FallSilent() {}
    // After the host's end.
    virtual void Stop() = 0;
    // After all peers have stopped: what it saw, and whether that is what was promised.
    virtual PeerAccount Account(const RunFacts& facts) const = 0;
};

// Sends and receives nothing itself: decides from what the others wrote down whether they did what they must.
class Judge : public Peer {
public:
    void AddTo(HostDocument&) const override {}
    void Start(time_point) override {}
    void Stop() override {}
};

}  // namespace vosk::rig
