#pragma once

// Checks setpoints while the run goes on, on a thread that runs only when a core has nothing else to do, so
// that it takes no time from the peers or from the system under test. Owned by the driver of the run.

#include "judge/contentCheck.hpp"

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace vosk::rig {

class CheckThread {
public:
    // Setpoints come from the log and the ring that M4 fills.
    CheckThread(ContentCheck check, const AppendLog<SetpointRecord>& setpoints, SetpointRing& ring);
    ~CheckThread();
    CheckThread(const CheckThread&) = delete;
    CheckThread& operator=(const CheckThread&) = delete;

    void Start();
    // Checks what is left, then ends. The writer of the log has stopped.
    void Finish();

    // Any thread.
    std::uint64_t Checked() const { return m_checked.load(std::memory_order_relaxed); }
    std::uint64_t Wrong() const { return m_wrong.load(std::memory_order_relaxed); }

    // After Finish().
    const std::vector<CheckedSetpoint>& Results() const { return m_results; }

private:
    void Run();
    // Returns whether there was something to check.
    bool CheckSome();

    ContentCheck m_check;  // this thread only, once started
    const AppendLog<SetpointRecord>& m_setpoints;
    SetpointRing& m_ring;
    std::vector<CheckedSetpoint> m_results;  // this thread until Finish()
    std::atomic<bool> m_finishing{false};
    std::atomic<std::uint64_t> m_checked{0};
    std::atomic<std::uint64_t> m_wrong{0};
    std::thread m_thread;
};

}  // namespace vosk::rig
