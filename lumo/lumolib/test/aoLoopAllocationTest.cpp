// The whole AO loop in one process, with every call of operator new counted: once it runs, nothing allocates,
// but where a thinned telemetry step calls for it.

#include "loopBench.hpp"

#include <lumolib/libMain.hpp>
#include <vosk/test/allocationCount.hpp>

namespace vosk::lumo {
namespace {

using namespace test;
using vosk::test::AllocationsOfAllThreads;

constexpr unsigned TELEMETRY_STEP = 500;

// The instrument, field stabilisation and M4, in the test's own thread.
class Peers {
public:
    void Command() { m_instrument.SendCommand(true, m_command, ++m_command_id, START); }

    void TipTilt() { Get<AoTasksFsDataSync>(false)->SetData(0.0F, 0.0F, 1U, START); }

    // Takes the next setpoint and answers it. An answer that comes before AoTasks has begun to wait is
    // forgotten: then M4 answers again.
    bool AnswerSetpoint() {
        const auto buffer = gsl::as_writable_bytes(gsl::span{&m_setpoint, 1});
        for (auto waited = REPEAT; waited < PATIENCE; waited += REPEAT) {
            const auto [error, sample] = m_receiver.ReceiveSample(buffer, REPEAT);
            if (sample) m_answered_id = sample->first->SampleId();
            if (error && error != std::errc::timed_out) return false;
            Answer();
            if (sample) return true;
        }
        return false;
    }

    // Once more, under a time of its own.
    void Answer() {
        m_answer_time += nanoseconds{1};
        m_m4.Send(m_answer, m_answered_id, m_answer_time);
    }

    unsigned AnsweredId() const { return m_answered_id; }

private:
    static constexpr milliseconds REPEAT{50};

    std::array<float, WAVEFRONT_CMD_SIZE> m_command{};
    defs::M4Setpoint::Payload m_setpoint{};
    defs::M4SetpointApplied::Payload m_answer{};
    unsigned m_command_id = 0;
    unsigned m_answered_id = 0;
    AtomClk::time_point m_answer_time = START;
    Peer m_instrument{5, 0};
    Peer m_m4{3, 2};
    pktwire::UdpRxSocket m_socket{vosk::test::Listening(UniquePort(1)), nullptr};
    pktwire::qudex::Receiver m_receiver{{.topic = TOPIC, .num_frames = 3}, m_socket, nullptr};
};

TEST(AoLoop, AllocatesNothingOnceItRuns) {
    // A clock that stands still: no setpoint is ever late, no answer ever overdue.
    atomclk::ManualClock clock{START};
    const TelemetryAgent agent;
    const vosk::test::TempDir directory;
    const std::vector<float> m2p(20 * M4_CMD_SIZE, 0.01F);
    Peers peers;
    gim::Config config;
    config.ParseText(
        "cfg: {ao: {wavefront_cmd_stream: [" + ReceiverKeys(0) + "], ao_tasks: [" +
            AoTasksKeys(directory, m2p, "0 us", "60000 ms") + "]}, m4: {input: [" + ReceiverKeys(2) +
            "], output: [{busy: false, ip_dest: 127.0.0.1, qudex_topic: " + std::to_string(TOPIC) +
            ", udp_dest: " + std::to_string(UniquePort(1)) + "}]}, statistics: {m4: 2 ms, ao: 2 ms}}",
        "test.yaml");
    ResetControlState();
    LibMain library{vosk::test::UniqueName() + "_"};
    library.SetupThreads(config);
    library.StartThreads();

    // Runs up to a sample ID, the first cycles uncounted.
    const auto run = [&](void (Peers::*begin)(), unsigned last) {
        const unsigned counted_from = peers.AnsweredId() + 20;
        std::size_t before = 0;
        while (peers.AnsweredId() < last) {
            if (peers.AnsweredId() <= counted_from) before = AllocationsOfAllThreads();
            (peers.*begin)();
            ASSERT_TRUE(peers.AnswerSetpoint());
        }
        EXPECT_EQ(AllocationsOfAllThreads(), before);
    };
    run(&Peers::TipTilt, 60);

    // The last that a cycle writes. A command that comes before a cycle has cleared its inputs wakes none.
    const auto end_of_cycle = Get<GpaoM4SetpointAppliedDataSync>();
    ASSERT_TRUE(Eventually([&] {
        peers.Answer();
        const std::shared_lock lock{end_of_cycle->GetMutex()};
        return end_of_cycle->GetSampleId() == peers.AnsweredId();
    }));
    end_of_cycle->ClearNewData();
    library.SetVoskMode(INS_DRIVEN_CASCADE, {});
    peers.Command();
    ASSERT_TRUE(Eventually([&] { return end_of_cycle->IsNewData(); }));
    ASSERT_EQ(VoskHandoverManager::GetInstance().GetState(), VoskHandoverManager::HANDOVER_WAIT_NEXT_INS_CMD);
    run(&Peers::Command, TELEMETRY_STEP - 1);
    peers.Command();
    ASSERT_TRUE(peers.AnswerSetpoint());
    run(&Peers::Command, TELEMETRY_STEP + 50);
    library.StopThreads();
}

}  // namespace
}  // namespace vosk::lumo
