// M4Output, M4Input, M4FeedbackInput and AoWavefrontCmdInput, cycle by cycle without their threads: the test
// plays AoTasks on one side and the network's peers on the other.

#include "loopBench.hpp"

#include <future>
#include <lumolib/aoWavefrontCmdInput.hpp>
#include <lumolib/m4Input.hpp>
#include <lumolib/m4Output.hpp>
#include <vosk/test/messageQueue.hpp>

namespace vosk::lumo {
namespace {

using log4cplus::WARN_LOG_LEVEL;
using namespace test;

class M4OutputTest : public LoopTest {
protected:
    // As AoTasks does.
    void HandOver(AtomClk::time_point send_time, defs::sample_id_t id) {
        std::array<float, M4_CMD_SIZE> setpoint{1.5F, -2.0F};
        setpoint.back() = 4.0F;
        m_sync.SetData(setpoint, send_time, id, AtomClk::now());
    }
    void Send(AtomClk::time_point send_time, defs::sample_id_t id) {
        HandOver(send_time, id);
        EXPECT_TRUE(m_output.RunCycle());
    }
    static std::uint32_t Sent() {
        return RuntimeMonitor::GetInstance().m_m4_output_state->GetTopicData().sample_count;
    }

    atomclk::ManualClock m_clock{START};
    const TelemetryAgent m_agent;
    Sending<M4Output> m_output{", send_interval: 2500 us, send_offset: 250 us, qudex_topic: 7"};
    M4OutputDataSync& m_sync = *Get<M4OutputDataSync>(false);
};

TEST_F(M4OutputTest, PublishesItsGridAndSendsThreeSegmentsInPlace) {
    EXPECT_EQ(m_sync.send_interval.load(), milliseconds{2});  // whole ones
    EXPECT_EQ(m_sync.send_offset.load(), microseconds{250});
    Send(START, 500);
    const auto segments = m_output.Sent();
    ASSERT_EQ(segments.size(), 3U);
    std::string record;
    constexpr std::array<std::size_t, 3> SIZES{7136, 7136, 7144};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(segments[i].hex.size(), 2 * SIZES[i]);
        EXPECT_EQ(segments[i].header.sample_id, 500U);
        EXPECT_EQ(segments[i].header.frame_number, i + 1);
        record += segments[i].hex;
    }
    EXPECT_THAT(record, StartsWith("3fc00000c0000000"));
    EXPECT_THAT(record.substr(2UL * 21404), "408000000000000000000001");
}

TEST_F(M4OutputTest, DropsASetpointOneNanosecondTooLate) {
    Send(START - microseconds{50} - nanoseconds{1}, 1);
    EXPECT_EQ(Sent(), 0U);
    EXPECT_EQ(Counted().late_setpoints, 1U);
    Send(START - microseconds{50}, 2);
    Send({}, 3);  // without a send time: at once, with the present time
    EXPECT_EQ(Sent(), 2U);
    EXPECT_EQ(m_output.Sent().at(3).Time(), START);
}

// The setpoint would leave long after it was meant.
TEST_F(M4OutputTest, DropsASetpointWhoseClockIsSetBack) {
    HandOver(AtomClk::now() + seconds{40}, 1);
    m_clock.Advance(-seconds{37});  // before M4Output has taken the setpoint
    EXPECT_TRUE(m_output.RunCycle());
    EXPECT_EQ(Counted().late_setpoints, 1U);

    HandOver(AtomClk::now() + seconds{40}, 2);
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
    HandOver(START + seconds{10}, 1);
    ASSERT_TRUE(Eventually([&] { return !m_sync.IsNewData(); }));
    HandOver(START + seconds{10}, 2);  // while the first one waits for its time
    m_output.Stop();
    EXPECT_FALSE(m_sync.IsDataReady());
}

// The writer notifies when it has given the lock back, and much can happen before.
TEST_F(M4OutputTest, SendsASetpointOnceWheneverItsNotificationComes) {
    common::WaitSynchronizerFlagBase& flag = m_sync;
    Send({}, 1);
    flag.SetDataReady();  // of the setpoint that was just taken
    EXPECT_TRUE(m_output.RunCycle());
    EXPECT_FALSE(flag.IsDataReady());
    EXPECT_EQ(Sent(), 1U);

    HandOver({}, 2);
    m_sync.ClearDataReady();  // by the cycle before, which was late
    flag.SetDataReady();
    EXPECT_TRUE(m_output.RunCycle());
    EXPECT_EQ(Sent(), 2U);
}

TEST_F(M4OutputTest, AnErrorOnASegmentEndsTheSampleButNotTheStreamAndAnAbsentMirrorIsNoError) {
    const LogCapture log;
    m_output.socket.fail_from = 2;
    for (const auto error : {std::errc::no_buffer_space, std::errc::connection_refused}) {
        m_output.socket.error = std::make_error_code(error);
        Send(START, 1);
    }
    EXPECT_THAT(log.Texts("", WARN_LOG_LEVEL), SizeIs(1));
    EXPECT_EQ(Sent(), 2U);  // counted as sent
    EXPECT_EQ(m_output.socket.datagrams.size(), 1U);
}

TEST_F(M4OutputTest, PublishesTheSendPeriodEachFiveHundredthSample) {
    Send(START - microseconds{40}, 498);
    Send(START - microseconds{30}, 499);
    Send(START - microseconds{10}, 500);
    std::vector<std::string> lines;
    for (const std::string& message :
         vosk::test::Drain(common::shmif::ShmIf{}.GetPrefix() + "vosk_telemetry_queue"))
        lines.push_back(message.substr(message.rfind(' ') + 1).c_str());  // without its padding
    EXPECT_THAT(lines,
                ElementsAre("m4_time_since_last_send_max_ms=0.02", "m4_time_since_last_send_mean_ms=0.015",
                            "m4_time_since_last_send_stddev_ms=0.007"));
}

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
    Running<M4Input> input{ReceiverKeys()};
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
    m_m4.RestartWithinASample(Running<M4Input>{ReceiverKeys()}, *Get<M4InputDataSync>(false),
                              [&](unsigned id) { m_m4.Send(defs::M4SetpointApplied::Payload{}, id, START); });
    instrument.RestartWithinASample(
        Running<AoWavefrontCmdInput>{ReceiverKeys()}, *Get<AoOutputDataSync>(false),
        [&](unsigned id) { instrument.SendCommand(true, command, id, AtomClk::now()); });
    m_m4.RestartWithinASample(Running<M4FeedbackInput>{ReceiverKeys()}, *Get<AoM4CapSensActDataSync>(),
                              [&](unsigned id) {
                                  feedback.counter = 10 * id;
                                  m_m4.Send(feedback, id, START);
                              });
    EXPECT_EQ(Counts(m_m4_state), std::pair(1U, 1U));
    EXPECT_EQ(Counts(m_command_state), std::pair(1U, 1U));
    EXPECT_THAT(m_log.Texts("M4FeedbackInput::", WARN_LOG_LEVEL), IsEmpty());
}

TEST_F(ReceiverTest, TheFeedbackCounterReportsEverySampleAfterALoss) {
    Running<M4FeedbackInput> input{ReceiverKeys()};
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
    Running<AoWavefrontCmdInput> m_input{ReceiverKeys()};
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
    };
    const std::vector<Case> cases{
        {SIZE, 1, 2, true, START - nanoseconds{5}, ""},
        {SIZE - 1, 1, 0, true, START, "it has another size"},
        {SIZE, 2, Float::infinity(), true, START, number},
        {SIZE, Float::quiet_NaN(), 0, true, START, number},
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
        if (test.size == SIZE && std::isfinite(test.first)) last_first = test.first;
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

}  // namespace
}  // namespace vosk::lumo
