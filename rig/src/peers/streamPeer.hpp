#pragma once

// A peer with one thread, which sends at the points of a grid and receives in between. It can die and come
// back. A class that derives from it calls Stop() in its destructor, as the thread uses its members.

#include "peers/absences.hpp"
#include "peers/peer.hpp"

#include <atomic>
#include <string>
#include <thread>

namespace vosk::rig {

class StreamPeer : public Peer {
public:
    void Start(time_point first) override;
    void TakeStep(const StepAction& action) override;  // takes effect within 20 ms
    void FallSilent() override { m_silent = true; }
    void Stop() override;

    const Absences& GetAbsences() const { return m_absences; }  // any thread

protected:
    // The grid: `offset` after the first point of all grids, and every `period` from there.
    StreamPeer(std::string name, FieldPeer who, int priority, std::chrono::nanoseconds period,
               std::chrono::nanoseconds offset);

    // The peer's thread. A point that is a whole period past is left out.
    virtual void OnGridPoint(time_point /*point*/) {}
    // Waits for one sample at most.
    virtual void Receive(std::chrono::nanoseconds timeout) { SleepUntil(AtomClk::now() + timeout); }
    // Sends what a fault held back and is due. Returns when the next is due.
    virtual time_point SendDelayed(time_point /*now*/) { return time_point::max(); }
    // Takes its sockets with it, and gets new ones.
    virtual void Die() = 0;
    virtual void Return() = 0;

    time_point First() const { return m_first; }

private:
    void Run();
    void LiveOrDie();

    const std::string m_name;
    const FieldPeer m_who;
    const int m_priority;
    const std::chrono::nanoseconds m_period;
    const std::chrono::nanoseconds m_offset;
    time_point m_first;
    bool m_alive = true;  // this thread only, once started
    Absences m_absences;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_wanted_alive{true};
    std::atomic<bool> m_silent{false};
    std::thread m_thread;
};

}  // namespace vosk::rig
