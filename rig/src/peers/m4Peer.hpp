#pragma once

// M4: a thread that receives setpoints, tells what it applied after its answer delay, and reports its
// sensors on a grid of its own. It applies each setpoint as it stands. It can die, taking its socket with it,
// and come back. The driver of the run owns it.

#include "host/hostProcess.hpp"
#include "peers/arrivalSocket.hpp"
#include "peers/faultySocket.hpp"
#include "report/figures.hpp"
#include "runLog.hpp"

#include <pktwire/qudex.hpp>
#include <vosk/defs/wireRecords.hpp>

#include <array>
#include <atomic>
#include <memory>
#include <thread>

namespace vosk::rig {

class M4Peer {
public:
    // Setpoints go to the log and their vectors to the ring, in the order of arrival. An entry of the log is
    // published when its answer is settled. Throws std::runtime_error if a socket can't be made.
    M4Peer(const Scenario& scenario, const Ports& ports, AppendLog<SetpointRecord>& log, SetpointRing& ring);
    ~M4Peer();
    M4Peer(const M4Peer&) = delete;
    M4Peer& operator=(const M4Peer&) = delete;

    // `first`: the start of the run, from which the times of faults count.
    void Start(time_point first);
    void Stop();

    // Any thread. Takes effect within a few milliseconds.
    void SetAlive(bool alive) { m_wanted_alive.store(alive, std::memory_order_relaxed); }

    // Any thread.
    const Absences& GetAbsences() const { return m_absences; }
    std::uint64_t Received() const { return m_received.load(std::memory_order_relaxed); }

    // After Stop().
    FeedbackCounts GetFeedbackCounts() const { return m_feedback_counts; }
    std::uint64_t IncompleteSetpoints() const { return m_incomplete; }
    std::uint64_t ForeignPackets() const { return m_foreign; }

private:
    using Setpoint = defs::M4Setpoint::Payload;
    using Applied = defs::M4SetpointApplied::Payload;
    using Feedback = defs::M4Feedback::Payload;

    // What exists only while M4 is alive.
    struct Life {
        explicit Life(std::uint16_t port);
        ArrivalSocket socket;
        pktwire::qudex::Receiver receiver;
    };
    // A stream to the host.
    struct Outlet {
        Outlet(const Scenario& scenario, Stream stream, std::uint16_t port, std::uint32_t topic);
        pktwire::UdpTxSocket socket;
        FaultySocket faulty_socket;
        pktwire::qudex::Sender sender;
        FaultGenerator faults;
    };
    struct PendingAnswer {
        bool waiting = false;
        time_point due;
        std::size_t record = 0;
        std::optional<Fault> fault;
        Applied payload;
    };

    void Run();
    void LiveOrDie();
    void Die();
    void Receive(time_point now);
    void TakeSetpoint(const pktwire::qudex::Packet& packet);
    void ScheduleAnswer(std::size_t record, time_point arrived);
    void SendDueAnswers(time_point now);
    void SendAnswer(PendingAnswer& answer);
    void PlanFeedback(time_point grid_point);
    void SendFeedback(time_point now);
    void PublishSettled();
    time_point NextDue() const;

    const std::chrono::nanoseconds m_answer_delay;
    const std::chrono::nanoseconds m_feedback_period;
    const std::uint16_t m_port;
    const int m_priority;
    AppendLog<SetpointRecord>& m_log;
    SetpointRing& m_ring;
    Outlet m_answers;
    Outlet m_feedback;

    // This thread only, once started.
    time_point m_first;
    std::unique_ptr<Life> m_life;
    Setpoint m_setpoint;
    std::array<PendingAnswer, ANSWERS_KEPT + 1> m_pending;
    Feedback m_feedback_record;
    std::uint32_t m_feedback_counter = 0;
    time_point m_feedback_grid;  // the next sample's point of the grid
    time_point m_feedback_due;   // when it is to leave
    std::optional<Fault> m_feedback_fault;
    FeedbackCounts m_feedback_counts;
    std::uint64_t m_incomplete = 0;
    std::uint64_t m_foreign = 0;

    Absences m_absences;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_wanted_alive{true};
    std::atomic<std::uint64_t> m_received{0};
    std::thread m_thread;
};

}  // namespace vosk::rig
