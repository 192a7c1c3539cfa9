#pragma once

// M4: a thread that receives setpoints, tells what it applied after its answer delay, and reports its
// sensors on a grid of its own. It applies each setpoint as it stands. It can die, taking its socket with it,
// and come back.

#include "appendLog.hpp"
#include "host/ports.hpp"
#include "peers/absences.hpp"
#include "peers/arrivalSocket.hpp"
#include "peers/faultySocket.hpp"
#include "peers/peer.hpp"
#include "peers/setpointRing.hpp"
#include "telescope/mirror.hpp"

#include <pktwire/qudex.hpp>
#include <vosk/defs/wireRecords.hpp>

#include <array>
#include <atomic>
#include <memory>
#include <thread>

namespace vosk::rig {

class M4Peer final : public Peer {
public:
    // Throws std::runtime_error if a socket can't be made.
    // `mirror`, if there is one, follows the leading modes of each setpoint.
    M4Peer(const Scenario& scenario, Ports& ports, std::shared_ptr<Mirror> mirror);
    ~M4Peer() override;

    void AddTo(HostDocument& document) const override;
    void Start(time_point first) override;
    void TakeStep(const StepAction& action) override;  // takes effect within a few milliseconds
    std::string Progress() const override;
    void Stop() override;
    PeerAccount Account(const RunFacts& facts) const override;

    // Setpoints in the order of arrival, each published when its answer is settled, and their vectors on the
    // way to whoever checks them.
    const AppendLog<SetpointRecord>& Log() const { return m_log; }
    SetpointRing& Ring() { return m_ring; }
    const SetpointRing& Ring() const { return m_ring; }
    // One entry a sample of the sensors.
    const AppendLog<FeedbackRecord>& FeedbackLog() const { return m_feedback_log; }
    const Absences& GetAbsences() const { return m_absences; }  // any thread
    // After Stop().
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
        const std::uint16_t port;
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

    const Scenario& m_scenario;
    const std::chrono::nanoseconds m_feedback_period;
    const std::uint16_t m_port;
    const std::shared_ptr<Mirror> m_mirror;
    AppendLog<SetpointRecord> m_log;
    AppendLog<FeedbackRecord> m_feedback_log;
    SetpointRing m_ring;
    Outlet m_answers;
    Outlet m_feedback;

    // This thread only, once started.
    time_point m_first;
    std::unique_ptr<Life> m_life;
    Setpoint m_setpoint;
    std::array<PendingAnswer, ANSWERS_KEPT + 1> m_pending;
    SetpointRing::Vector m_values{};  // of the last setpoint, which the sensors show
    Feedback m_feedback_record;
    std::uint32_t m_feedback_counter = 0;
    time_point m_feedback_grid;  // the next sample's point of the grid
    time_point m_feedback_due;   // when it is to leave
    std::optional<Fault> m_feedback_fault;
    FaultCounts m_feedback_faults;
    std::uint64_t m_incomplete = 0;
    std::uint64_t m_foreign = 0;

    Absences m_absences;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_wanted_alive{true};
    std::atomic<std::uint64_t> m_received{0};
    std::thread m_thread;
};

}  // namespace vosk::rig
