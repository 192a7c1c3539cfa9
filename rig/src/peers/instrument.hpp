#pragma once

// The instrument: a thread that sends one wavefront command at each point of a time grid, over LSPX. It
// sleeps in between, to absolute times, so that a late command shifts no other.

#include "appendLog.hpp"
#include "host/ports.hpp"
#include "peers/faultySocket.hpp"
#include "peers/loopRecords.hpp"
#include "peers/peer.hpp"
#include "peers/wavefront.hpp"
#include "telescope/instrumentLoop.hpp"

#include <pktwire/lspx.hpp>
#include <vosk/defs/wireRecords.hpp>

#include <atomic>
#include <thread>

namespace vosk::rig {

class Instrument final : public Peer {
public:
    // Throws std::runtime_error if the socket can't be made.
    // Without a `loop` the commands come from fixed shapes.
    Instrument(const Scenario& scenario, Ports& ports, InstrumentLoop* loop);
    ~Instrument() override;

    void AddTo(HostDocument& document) const override;
    void Start(time_point first) override;  // the first command carries `first` as its time stamp
    void TakeStep(const StepAction& action) override;
    std::string Progress() const override;
    void FallSilent() override;
    void Stop() override { FallSilent(); }
    PeerAccount Account(const RunFacts& facts) const override;

    // One entry a command sent.
    const AppendLog<CommandRecord>& Log() const { return m_log; }
    // Grid points at which this thread woke too late for a command that the host could serve, and sent none.
    // Any thread.
    std::uint64_t Overruns() const { return m_overruns.load(std::memory_order_relaxed); }

private:
    using Stream = defs::AoWavefrontCmdStream;

    void Run();
    void SendCommand(std::uint64_t number, time_point time_stamp);

    const Scenario& m_scenario;
    const std::uint16_t m_port;
    AppendLog<CommandRecord> m_log;
    const std::chrono::nanoseconds m_period;
    const std::chrono::nanoseconds m_patience;  // how late a command may leave
    const std::uint64_t m_last_number;
    WavefrontGenerator m_wavefront;
    InstrumentLoop* const m_loop;
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

}  // namespace vosk::rig
