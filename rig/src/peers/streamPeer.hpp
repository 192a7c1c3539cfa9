#pragma once

// A peer with one thread, which sends at the points of a grid and receives in between. A class that derives
// from it calls Stop() in its destructor, as the thread uses its members.

#include "peers/peer.hpp"

#include <atomic>
#include <string>
#include <thread>

namespace vosk::rig {

class StreamPeer : public Peer {
public:
    void Start(time_point first) override;
    void FallSilent() override { m_silent = true; }
    void Stop() override;

protected:
    // The grid: `offset` after the first point of all grids, and every `period` from there.
    StreamPeer(std::string name, int priority, std::chrono::nanoseconds period,
               std::chrono::nanoseconds offset);

    // The peer's thread. A point that is a whole period past is left out.
    virtual void OnGridPoint(time_point /*point*/) {}
    // Waits for one sample at most.
    virtual void Receive(std::chrono::nanoseconds timeout) { SleepUntil(AtomClk::now() + timeout); }

    time_point First() const { return m_first; }

private:
    void Run();

    const std::string m_name;
    const int m_priority;
    const std::chrono::nanoseconds m_period;
    const std::chrono::nanoseconds m_offset;
    time_point m_first;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_silent{false};
    std::thread m_thread;
};

}  // namespace vosk::rig
