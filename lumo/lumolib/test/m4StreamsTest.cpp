// M4Output, M4Input, M4FeedbackInput and AoWavefrontCmdInput, cycle by cycle without their threads: the test
// plays AoTasks on one side and the network's peers on the other.

#include "loopBench.hpp"

#include <future>
#include <lumolib/aoWavefrontCmdInput.hpp>
#include <lumolib/m4Input.hpp>
#include <lumolib/m4Output.hpp>
#include <pktwire/detail/wire.hpp>
#include <vosk/test/messageQueue.hpp>
#include <vosk/test/recordingSocket.hpp>

namespace vosk::lumo {
namespace {

using log4cplus::WARN_LOG_LEVEL;
using namespace test;
using namespace testing;

class SteppedM4Output : public M4Output {
public:
    using M4Output::RunCycle;

    SteppedM4Output(const std::string& keys, pktwire::TxSocket& socket)
        : M4Output{CfgOf("cfg: {busy: false, ip_dest: 127.0.0.1, udp_dest: 9, " + keys + "}")} {
        m_sender = std::make_unique<pktwire::qudex::Sender>(m_qudex_cfg, socket, nullptr);
        common::SetRunning(m_running, true);
    }
    ~SteppedM4Output() override { common::SetRunning(m_running, false); }

    void Send(AtomClk::time_point send_time, defs::sample_id_t id) {
        HandOver(send_time, id);
        EXPECT_TRUE(RunCycle());
    }

    // As AoTasks does.
    static void HandOver(AtomClk::time_point send_time, defs::sample_id_t id) {
        std::array<float, M4_CMD_SIZE> setpoint{1.5F, -2.0F};
        setpoint.back() = 4.0F;
        Get<M4OutputDataSync>(false)->SetData(setpoint, send_time, id, AtomClk::now());
    }
};

class M4OutputTest : public LoopTest {
protected:
    static std::uint32_t Sent() {
        return RuntimeMonitor::GetInstance().m_m4_output_state->GetTopicData().sample_count;
    }

    pktwire::wire::QudexHeader Header(std::size_t datagram) const {
        pktwire::wire::QudexHeader header;
        std::memcpy(&header, m_socket.datagrams.at(datagram).data(), sizeof header);
        return header;
    }

    atomclk::ManualClock m_clock{START};
    vosk::test::RecordingSocket m_socket;
    SteppedM4Output m_output{"send_interval: 2500 us, send_offset: 250 us, qudex_topic: 7", m_socket};
    M4OutputDataSync& m_sync = *Get<M4OutputDataSync>(false);
};

TEST_F(M4OutputTest, PublishesItsGridAndSendsThreeSegmentsInPlace) {
    EXPECT_EQ(m_sync.send_interval.load(), milliseconds{2});  // whole ones
    EXPECT_EQ(m_sync.send_offset.load(), microseconds{250});
    m_output.Send(START, 500);
    ASSERT_EQ(m_socket.datagrams.size(), 3U);
    std::string record;
    constexpr std::array<std::size_t, 3> SIZES{7136, 7136, 7144};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(m_socket.datagrams[i].size(), sizeof(pktwire::wire::QudexHeader) + SIZES[i]);
        EXPECT_EQ(Header(i).sample_id, 500U);
        EXPECT_EQ(Header(i).frame_number, i + 1);
        record += m_socket.datagrams[i].substr(sizeof(pktwire::wire::QudexHeader));
    }
    EXPECT_EQ(record.substr(0, 8), (std::string{"\x3f\xc0\0\0\xc0\0\0\0", 8}));
    EXPECT_EQ(record.substr(21404), (std::string{"\x40\x80\0\0\0\0\0\0\0\0\0\x01", 12}));
}

TEST_F(M4OutputTest, DropsASetpointOneNanosecondTooLate) {
    m_output.Send(START - microseconds{50} - nanoseconds{1}, 1);
    EXPECT_EQ(Sent(), 0U);
    EXPECT_EQ(Counted().late_setpoints, 1U);
    m_output.Send(START - microseconds{50}, 2);
    m_output.Send({}, 3);  // without a send time: at once, with the present time
    EXPECT_EQ(Sent(), 2U);
    EXPECT_EQ(AtomClk::time_point{Header(3).timestamp}, START);
}

// The setpoint would leave long after it was meant.
TEST_F(M4OutputTest, DropsASetpointWhoseClockIsSetBack) {
    m_output.HandOver(AtomClk::now() + seconds{40}, 1);
    m_clock.Advance(-seconds{37});  // before M4Output has taken the setpoint
    EXPECT_TRUE(m_output.RunCycle());
    EXPECT_EQ(Counted().late_setpoints, 1U);

    m_output.HandOver(AtomClk::now() + seconds{40}, 2);
    auto cycle = std::async(std::launch::async, [this] { return m_output.RunCycle(); });
    ASSERT_TRUE(Eventually([&] { return !m_sync.IsNewData(); }));
    EXPECT_TRUE(Eventually([&] {
        m_clock.Advance(-seconds{37});
        return cycle.wait_for(microseconds{0}) == std::future_status::ready;
    }));
    EXPECT_TRUE(cycle.get());
    EXPECT_EQ(Counted().late_setpoints, 2U);
    EXPECT_EQ(Sent(), 0U);
}

TEST_F(M4OutputTest, ARestartSendsNoSetpointOfTheFormerRun) {
    m_output.Start().get();
    m_output.HandOver(START + seconds{10}, 1);
    ASSERT_TRUE(Eventually([&] { return !m_sync.IsNewData(); }));
    m_output.HandOver(START + seconds{10}, 2);  // while the first one waits for its time
    m_output.Stop();
    EXPECT_FALSE(m_sync.IsDataReady());
}

// The writer notifies when it has given the lock back, and much can happen before.
TEST_F(M4OutputTest, SendsASetpointOnceWheneverItsNotificationComes) {
    common::WaitSynchronizerFlagBase& flag = m_sync;
    m_output.Send({}, 1);
    flag.SetDataReady();  // of the setpoint that was just taken
    EXPECT_TRUE(m_output.RunCycle());
    EXPECT_FALSE(flag.IsDataReady());
    EXPECT_EQ(Sent(), 1U);

    m_output.HandOver({}, 2);
    m_sync.ClearDataReady();  // by the cycle before, which was late
    flag.SetDataReady();
    EXPECT_TRUE(m_output.RunCycle());
    EXPECT_EQ(Sent(), 2U);
}

TEST_F(M4OutputTest, AnErrorOnASegmentEndsTheSampleButNotTheStreamAndAnAbsentMirrorIsNoError) {
    const LogCapture log;
    m_socket.fail_from = 2;
    for (const auto error : {std::errc::no_buffer_space, std::errc::connection_refused}) {
        m_socket.error = std::make_error_code(error);
        m_output.Send(START, 1);
    }
    EXPECT_THAT(log.Texts("", WARN_LOG_LEVEL), SizeIs(1));
    EXPECT_EQ(Sent(), 2U);  // counted as sent
    EXPECT_EQ(m_socket.datagrams.size(), 1U);
}

TEST_F(M4OutputTest, PublishesTheSendPeriodEachFiveHundredthSample) {
    const TelemetryAgent agent;
    SteppedM4Output output{"", m_socket};
    output.Send(START - microseconds{40}, 498);
    output.Send(START - microseconds{30}, 499);
    output.Send(START - microseconds{10}, 500);
    std::vector<std::string> lines;
    for (const std::string& message :
         vosk::test::Drain(common::shmif::ShmIf{}.GetPrefix() + "vosk_telemetry_queue"))
        lines.push_back(message.substr(message.rfind(' ') + 1).c_str());  // without its padding
    EXPECT_THAT(lines,
                ElementsAre("m4_time_since_last_send_max_ms=0.02", "m4_time_since_last_send_mean_ms=0.015",
                            "m4_time_since_last_send_stddev_ms=0.007"));
}

// A receiver whose cycles the test runs.
template <class Input>
struct Stepped : Input {
    Stepped() : Input{CfgOf("cfg: " + ReceiverKeys())} {}
    using Input::RunCycle;
};

class ReceiverTest : public LoopTest {
protected:
    // Valid and invalid samples of a stream so far.
    static std::pair<std::uint32_t, std::uint32_t> Counts(const std::shared_ptr<InputStreamState>& state) {
        const auto topic = state->GetTopicData();
        return {topic.sample_count, topic.invalid_count};
    }

    const LogCapture m_log;
    Peer m_m4{3};
    std::shared_ptr<InputStreamState> m_m4_state = RuntimeMonitor::GetInstance().m_m4_input_state;
    std::shared_ptr<InputStreamState> m_command_state =
        RuntimeMonitor::GetInstance().m_ao_wavefront_cmd_state;
};

TEST_F(ReceiverTest, M4AnswersReachTheirObjectAndBrokenOnesAreCounted) {
    Stepped<M4Input> input;
    const auto sync = Get<M4InputDataSync>(false);
    m_m4.Send(std::array<std::byte, 21431>{}, 42, START);  // one byte short
    input.RunCycle();
    EXPECT_EQ(Counts(m_m4_state), std::pair(0U, 1U));
    defs::M4SetpointApplied::Payload payload;
    payload.setpoint[5351] = 6.25F;
    m_m4.Send(payload, 43, START + microseconds{3});
    input.RunCycle();
    EXPECT_EQ(Counts(m_m4_state), std::pair(1U, 1U));
    EXPECT_EQ(sync->GetSampleId(), 43U);
    EXPECT_EQ(sync->GetTimestamp(), START + microseconds{3});
    EXPECT_EQ(sync->GetDataRef().setpoint[5351], 6.25F);
}

TEST_F(ReceiverTest, AReceiverThatIsRestartedWithinASampleForgetsTheSample) {
    Peer instrument{5};
    const std::vector<float> command(WAVEFRONT_CMD_SIZE);
    defs::M4Feedback::Payload feedback;
    m_m4.RestartWithinASample(Stepped<M4Input>{}, *Get<M4InputDataSync>(false),
                              [&](unsigned id) { m_m4.Send(defs::M4SetpointApplied::Payload{}, id, START); });
    instrument.RestartWithinASample(
        Stepped<AoWavefrontCmdInput>{}, *Get<AoOutputDataSync>(false),
        [&](unsigned id) { instrument.SendCommand(true, command, id, AtomClk::now()); });
    m_m4.RestartWithinASample(Stepped<M4FeedbackInput>{}, *Get<AoM4CapSensActDataSync>(), [&](unsigned id) {
        feedback.counter = 10 * id;
        m_m4.Send(feedback, id, START);
    });
    EXPECT_EQ(Counts(m_m4_state), std::pair(1U, 1U));
    EXPECT_EQ(Counts(m_command_state), std::pair(1U, 1U));
    EXPECT_THAT(m_log.Texts("M4FeedbackInput::", WARN_LOG_LEVEL), IsEmpty());
}

TEST_F(ReceiverTest, TheFeedbackCounterReportsEverySampleAfterALoss) {
    Stepped<M4FeedbackInput> input;
    const auto sync = Get<AoM4CapSensActDataSync>();
    defs::M4Feedback::Payload sent;
    unsigned id = 0;
    for (const std::uint32_t counter : {0U, 5U, 6U, 8U, 9U}) {  // a 0 is forgotten; 7 is lost
        sent.counter = counter;
        sent.values[0] = static_cast<float>(counter);
        m_m4.Send(sent, ++id, START);
        input.RunCycle();
        EXPECT_EQ(sync->GetData().payload.values[0], static_cast<float>(counter));
    }
    EXPECT_THAT(m_log.Texts("", WARN_LOG_LEVEL), ElementsAre(EndsWith("( 7 != 8 )"), EndsWith("( 8 != 9 )")));
}

class CommandInput : public ReceiverTest {
protected:
    void Receive(unsigned id, bool valid, const std::vector<float>& command, AtomClk::time_point time,
                 bool taken = true) {
        if (taken) m_ins->ClearDataReady();
        m_output->ClearDataReady();
        m_instrument.SendCommand(valid, command, id, time);
        m_input.RunCycle();
    }

    atomclk::ManualClock m_clock{START};
    Peer m_instrument{5};
    Stepped<AoWavefrontCmdInput> m_input;
    std::shared_ptr<AoTasksInsDataSync> m_ins = Get<AoTasksInsDataSync>(false);
    std::shared_ptr<AoOutputDataSync> m_output = Get<AoOutputDataSync>(false);
};

TEST_F(CommandInput, WhatIsLostOnTheWayToAoTasksIsCounted) {
    const std::vector<float> command(WAVEFRONT_CMD_SIZE);
    const auto& overwritten = Counted().overwritten_commands;
    SetMode(INS_DRIVEN_CASCADE);
    for (unsigned id : {1U, 2U}) Receive(id, true, command, START);
    EXPECT_EQ(overwritten, 0U);
    Receive(6, true, command, START, false);
    Receive(5, true, command, START, false);  // too late
    EXPECT_EQ(overwritten, 1U);
    Receive(7, false, command, START, false);  // stored in part: the one before stands
    SetMode(TEL_DRIVEN);
    for (unsigned id : {8U, 9U}) Receive(id, true, command, START, false);
    EXPECT_EQ(m_command_state->GetTopicData().losses.lost, 3U);
    EXPECT_EQ(m_command_state->GetTopicData().losses.stale_packets, 5U);
    EXPECT_EQ(overwritten, 1U);
}

// The pair in front and the beat of the AO output go on, whatever is wrong with the rest of a command.
TEST_F(CommandInput, UsableCommandsWakeAoTasksAndOthersCountAsInvalid) {
    SetMode(INS_DRIVEN_CASCADE);
    using Float = std::numeric_limits<float>;
    constexpr std::size_t SIZE = WAVEFRONT_CMD_SIZE;
    const std::string number = "a value is not finite";
    const std::string time = "its time is out of range, ";
    const AtomClk::time_point epoch{};
    struct Case {
        std::size_t size;
        float first;  // value of the command
        float last;
        bool valid;  // as the instrument says
        AtomClk::time_point time;
        std::string fault;
        bool keeps_pair = true;
    };
    const std::vector<Case> cases{
        {SIZE, 1, 2, true, START - nanoseconds{5}, ""},
        {SIZE - 1, 1, 0, true, START, "it has another size", false},
        {SIZE, 2, Float::infinity(), true, START, number},
        {SIZE, Float::quiet_NaN(), 0, true, START, number, false},
        {SIZE, 3, Float::quiet_NaN(), false, START, ""},
        {SIZE, 5, 0, true, START + seconds{1} + nanoseconds{1}, time + "1.000 s ahead of our clock"},
        {SIZE, 6, 3, true, START + seconds{1}, ""},
        {SIZE, 7, 0, true, AtomClk::time_point::min(), time + "9223375636.855 s behind our clock"},
        {SIZE, 8, 0, true, epoch - nanoseconds{1}, time + "3600.000 s behind our clock"},
        {SIZE, 9, 0, false, epoch - nanoseconds{1}, ""},
        {SIZE, 10, 4, true, epoch, ""},  // without a time
    };
    unsigned id = 0;
    float last_first = 0.0F;
    for (const Case& test : cases) {
        SCOPED_TRACE(++id);
        const auto [valid, invalid] = Counts(m_command_state);
        std::vector<float> command(test.size);
        command.front() = test.first;
        command.back() = test.last;
        Receive(id, test.valid, command, test.time);
        const bool used = test.valid && test.fault.empty();
        EXPECT_EQ(Counts(m_command_state), std::pair(valid + (used ? 1 : 0), invalid + (used ? 0 : 1)));
        EXPECT_EQ(m_ins->IsDataReady(), used);
        const InsCmdData stored = m_ins->GetData();
        if (test.keeps_pair) last_first = test.first;
        EXPECT_EQ(stored.command[0], last_first);
        EXPECT_EQ(stored.command[SIZE - 1] == test.last, used);
        EXPECT_EQ(stored.flags, used ? 1U : 0U);
        // Nobody downstream waits for a time that is none.
        const bool has_time = test.time >= epoch && test.time <= START + seconds{1};
        EXPECT_EQ(m_output->GetSampleId(), id);
        EXPECT_EQ(m_output->GetData().command_time, has_time ? test.time : START);
        EXPECT_EQ(m_log.Has(WARN_LOG_LEVEL, "ReceiveSample: unusable wavefront command, sample_id = " +
                                                std::to_string(id) + ": " + test.fault),
                  !test.fault.empty());
    }
}

TEST_F(CommandInput, ACommandThatIsTooLongIsAReceiveError) {
    Receive(1, true, std::vector<float>(WAVEFRONT_CMD_SIZE + 1), START);
    EXPECT_EQ(Counts(m_command_state), std::pair(0U, 1U));
    EXPECT_FALSE(m_output->IsNewData());
}

}  // namespace
}  // namespace vosk::lumo
