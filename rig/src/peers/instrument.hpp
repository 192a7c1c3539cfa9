#pragma once

// The instrument: a thread that sends one wavefront command at each point of a time grid, over LSPX. It
// sleeps in between, to absolute times, so that a late command shifts no other. The driver of the run owns
// it.

#include "host/hostProcess.hpp"
#include "peers/faultySocket.hpp"
#include "peers/wavefront.hpp"
#include "runLog.hpp"

#include <pktwire/lspx.hpp>
#include <vosk/defs/wireRecords.hpp>

#include <atomic>
#include <thread>

namespace vosk::rig {

class Instrument {
public:
    // The log has one entry a command sent. Throws std::runtime_error if the socket can't be made.
    Instrument(const Scenario& scenario, const Ports& ports, AppendLog<CommandRecord>& log);
    ~Instrument();
    Instrument(const Instrument&) = delete;
    Instrument& operator=(const Instrument&) = delete;

    // The first command carries `first` as its time stamp.
    void Start(time_point first);
    void Stop();

    // Any thread.
    void SetValid(bool valid) { m_valid.store(valid, std::memory_order_relaxed); }
    void SetSilent(bool silent) { m_silent.store(silent, std::memory_order_relaxed); }

    // Grid points at which this thread itself woke too late to send a command that the host could serve, and
    // sent none.
    std::uint64_t Overruns() const { return m_overruns.load(std::memory_order_relaxed); }

private:
    using Stream = defs::AoWavefrontCmdStream;

    void Run();
    void SendCommand(std::uint64_t number, time_point time_stamp);

    AppendLog<CommandRecord>& m_log;
    const std::chrono::nanoseconds m_period;
    const std::chrono::nanoseconds m_patience;  // how late a command may leave
    const std::uint64_t m_last_number;
    const int m_priority;
    WavefrontGenerator m_wavefront;
    FaultGenerator m_faults;
    pktwire::UdpTxSocket m_socket;
    FaultySocket m_faulty_socket;
    pktwire::qudex::Sender m_qudex;
    pktwire::lspx::Sender m_sender;

    // This thread only, once started.
    time_point m_first;
    Stream::Payload m_payload;
    defs::sample_id_t m_next_sample_id = 1;

    std::atomic<bool> m_running{false};
    std::atomic<bool> m_valid{true};
    std::atomic<bool> m_silent{false};
    std::atomic<std::uint64_t> m_overruns{0};
    std::thread m_thread;
};

// Gives the calling thread a priority under SCHED_FIFO, unless it is 0. False if the system refuses.
bool TakePriority(int priority);

// Sleeps to an absolute time; returns at once if it has passed.
void SleepUntil(time_point time);

}  // namespace vosk::rig
