// M4Output, M4Input, M4FeedbackInput and AoWavefrontCmdInput, cycle by cycle without their threads: the test
// plays AoTasks on one side and the network's peers on the other.

#include "testSupport.hpp"

#include <vosk/test/support.hpp>

#include <atomclk/atomClk.hpp>
#include <gim/config.hpp>
#include <lumolib/aoWavefrontCmdInput.hpp>
#include <lumolib/dataSyncManager.hpp>
#include <lumolib/m4Input.hpp>
#include <lumolib/m4Output.hpp>
#include <lumolib/voskHandoverManager.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>
#include <pktwire/detail/wire.hpp>
#include <vosk/common/shmif/shmIf.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/loopback.hpp>
#include <vosk/test/messageQueue.hpp>
#include <vosk/test/recordingSocket.hpp>

namespace vosk::lumo {
namespace {

using atomclk::AtomClk;
using defs::M4_CMD_SIZE;
using defs::VoskControlMode;
using log4cplus::WARN_LOG_LEVEL;
using std::chrono::microseconds;
using std::chrono::nanoseconds;
using namespace testing;
using namespace vosk::test;

constexpr AtomClk::time_point START{std::chrono::hours{1}};

template <class T, class... Args>
std::shared_ptr<T> Get(Args... args) {
    return DataSyncManager::GetInstance().GetOrRegisterDataSync<T>(T::InstanceTag::DEFAULT, args...);
}

class Streams : public ::testing::Test {
protected:
    Streams() {
        common::shmif::ShmIf::Setup(vosk::test::UniqueName() + "_");
        DataSyncManager::CreateInstance();
        RuntimeMonitor::CreateInstance(gim::Config{});
        RuntimeMonitor::GetInstance().Reset();
        ResetControlState();
    }
    ~Streams() override { common::shmif::ShmIf::Teardown(); }

    // Valid and invalid samples of a stream so far.
    static std::pair<std::uint32_t, std::uint32_t> Counts(const std::shared_ptr<InputStreamState>& state) {
        const auto topic = state->GetTopicData();
        return {topic.sample_count, topic.invalid_count};
    }
};

class SteppedM4Output : public M4Output {
public:
    using M4Output::RunCycle;

    SteppedM4Output(const std::string& keys, pktwire::TxSocket& socket)
        : M4Output{test::CfgOf("cfg: {busy: false, ip_dest: 127.0.0.1, udp_dest: 9, " + keys + "}")} {
        m_sender = std::make_unique<pktwire::qudex::Sender>(m_qudex_cfg, socket, nullptr);
        common::SetRunning(m_running, true);
    }
    ~SteppedM4Output() override { common::SetRunning(m_running, false); }

    void Send(AtomClk::time_point send_time, defs::sample_id_t id) {
        std::array<float, M4_CMD_SIZE> setpoint{1.5F, -2.0F};
        setpoint.back() = 4.0F;
        Get<M4OutputDataSync>(false)->SetData(setpoint, send_time, id, AtomClk::now());
        EXPECT_TRUE(RunCycle());
    }
};

class M4OutputTest : public Streams {
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
    RecordingSocket m_socket;
    SteppedM4Output m_output{"send_interval: 2500 us, send_offset: 250 us, qudex_topic: 7", m_socket};
};

TEST_F(M4OutputTest, TellsItsGridAndSendsThreeSegmentsInPlace) {
    EXPECT_EQ(Get<M4OutputDataSync>(false)->send_interval.load(),
              std::chrono::milliseconds{2});  // whole ones
    EXPECT_EQ(Get<M4OutputDataSync>(false)->send_offset.load(), microseconds{250});
    m_output.Send(START, 500);
    ASSERT_EQ(m_socket.datagrams.size(), 3U);
    std::string record;
    constexpr std::array<std::size_t, 3> SIZES{7136, 7136, 7144};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(m_socket.datagrams[i].size(), sizeof(pktwire::wire::QudexHeader) + SIZES[i]);
        EXPECT_EQ(Header(i).sample_id, 500U);
        EXPECT_EQ(AtomClk::time_point{Header(i).timestamp}, START);
        EXPECT_EQ(Header(i).frame_number, i + 1);
        record += m_socket.datagrams[i].substr(sizeof(pktwire::wire::QudexHeader));
    }
    EXPECT_EQ(record.substr(0, 8), (std::string{"\x3f\xc0\0\0\xc0\0\0\0", 8}));
    EXPECT_EQ(record.substr(21404), (std::string{"\x40\x80\0\0\0\0\0\0\0\0\0\x01", 12}));
    EXPECT_EQ(RuntimeMonitor::GetPerformanceData().GetDataTopic().u4_fs_tt,
              (defs::FloatVectorTT{1.5F, -2.0F}));
}

TEST_F(M4OutputTest, DropsASetpointOneNanosecondTooLate) {
    const LogCapture log;
    m_output.Send(START - microseconds{50} - nanoseconds{1}, 1);
    EXPECT_EQ(Sent(), 0U);
    EXPECT_TRUE(log.Has(log4cplus::ERROR_LOG_LEVEL,
                        "M4Output::Work(): Got 'am:setpoint' message with a send time that has already "
                        "passed, diff = +50 us, no data will be sent!"));
    m_output.Send(START - microseconds{50}, 2);
    m_output.Send({}, 3);  // no send time: at once, with the present time
    EXPECT_EQ(Sent(), 2U);
    EXPECT_EQ(AtomClk::time_point{Header(3).timestamp}, START);
}

// It would leave long after it was meant.
TEST_F(M4OutputTest, DropsASetpointWhoseClockIsSetBack) {
    M4OutputDataSync& sync = *Get<M4OutputDataSync>(false);
    const auto& late = RuntimeMonitor::GetInstance().m_command_counts->late_setpoints;
    const auto hand_over = [&](unsigned id) {
        const auto now = AtomClk::now();
        sync.SetData(std::array<float, M4_CMD_SIZE>{}, now + std::chrono::seconds{40}, id, now);
    };
    hand_over(1);
    m_clock.Advance(-std::chrono::seconds{37});  // before M4Output has taken it
    EXPECT_TRUE(m_output.RunCycle());
    EXPECT_EQ(late, 1U);

    hand_over(2);
    auto cycle = std::async(std::launch::async, [this] { return m_output.RunCycle(); });
    ASSERT_TRUE(Eventually([&] { return !sync.IsNewData(); }));
    EXPECT_TRUE(Eventually([&] {
        m_clock.Advance(-std::chrono::seconds{37});
        return cycle.wait_for(microseconds{0}) == std::future_status::ready;
    }));
    EXPECT_TRUE(cycle.get());
    EXPECT_EQ(late, 2U);
    EXPECT_EQ(Sent(), 0U);
}

TEST_F(M4OutputTest, ARestartSendsNoSetpointOfTheFormerRun) {
    M4OutputDataSync& sync = *Get<M4OutputDataSync>(false);
    const auto hand_over = [&](unsigned id) {
        sync.SetData(std::array<float, M4_CMD_SIZE>{}, START + std::chrono::seconds{10}, id, START);
    };
    m_output.Start().get();
    hand_over(1);
    ASSERT_TRUE(Eventually([&] { return !sync.IsNewData(); }));
    hand_over(2);  // while the first one waits for its time
    m_output.Stop();
    EXPECT_FALSE(sync.IsDataReady());
    EXPECT_EQ(Sent(), 0U);
}

// The writer notifies when it has given the lock back, and much can happen before.
TEST_F(M4OutputTest, SendsASetpointOnceWheneverItsNotificationComes) {
    M4OutputDataSync& sync = *Get<M4OutputDataSync>(false);
    common::WaitSynchronizerFlagBase& flag = sync;
    m_output.Send({}, 1);
    flag.SetDataReady();  // of the setpoint that was just taken
    EXPECT_TRUE(m_output.RunCycle());
    EXPECT_FALSE(flag.IsDataReady());
    EXPECT_EQ(Sent(), 1U);

    sync.SetData(std::array<float, M4_CMD_SIZE>{}, AtomClk::time_point{}, 2U, AtomClk::now());
    sync.ClearDataReady();  // by the cycle before, which was late
    flag.SetDataReady();
    EXPECT_TRUE(m_output.RunCycle());
    EXPECT_EQ(Sent(), 2U);
}

TEST_F(M4OutputTest, AnErrorOnASegmentEndsTheSampleButNotTheStreamAndAnAbsentMirrorIsNone) {
    m_socket.fail_from = 2;
    for (const auto error : {std::errc::no_buffer_space, std::errc::connection_refused}) {
        const LogCapture log;
        m_socket.error = std::make_error_code(error);
        m_output.Send(START, 1);
        EXPECT_EQ(log.Has(WARN_LOG_LEVEL, "M4Output::Work(): SendPacket: " + m_socket.error.message()),
                  error == std::errc::no_buffer_space);
    }
    EXPECT_EQ(Sent(), 2U);  // booked as sent
    EXPECT_EQ(m_socket.datagrams.size(), 1U);
}

// The telemetry lines of three setpoints, 10 us and 20 us apart, of which the last has the ID of a thinned
// sample, with a collector's agent at the port.
std::vector<std::string> TelemetryLines(int port) {
    using common::telegraf::TelemSender;
    TelemSender::m_default_telegraph_host_ip_addr = "127.0.0.1";
    TelemSender::m_default_telegraph_port = port;
    const atomclk::ManualClock clock{START};
    RecordingSocket socket;
    SteppedM4Output output{"", socket};
    output.Send(START - microseconds{40}, 498);
    output.Send(START - microseconds{30}, 499);
    output.Send(START - microseconds{10}, 500);
    TelemSender::m_default_telegraph_host_ip_addr.clear();
    TelemSender::m_default_telegraph_port = 0;

    const std::string prefix = common::shmif::ShmIf{}.GetPrefix();
    std::vector<std::string> lines;
    for (const std::string& message : vosk::test::Drain(prefix + "vosk_telemetry_queue")) {
        const std::string line = message.substr(0, message.find('\0'));  // without its padding
        lines.push_back(line.substr(line.find(')')));
    }
    return lines;
}

TEST_F(Streams, M4OutputPublishesTheSendPeriodEachFiveHundredthSample) {
    EXPECT_THAT(TelemetryLines(8094),
                ElementsAre("),rtc_performance=m4_output m4_time_since_last_send_max_ms=0.02",
                            "),rtc_performance=m4_output m4_time_since_last_send_mean_ms=0.015",
                            "),rtc_performance=m4_output m4_time_since_last_send_stddev_ms=0.007"));
    // An agent without a port is none, and no queue is made.
    EXPECT_THROW(TelemetryLines(0), boost::interprocess::interprocess_exception);
}

// Sends of each sample all frames, all but the last or the last alone.
struct PartSocket final : pktwire::TxSocket {
    enum class Part { ALL, BUT_LAST, LAST };
    std::error_code Send(std::span<mmsghdr> messages) noexcept override {
        if (part == Part::LAST) messages = messages.last(1);
        return socket.Send(messages.first(messages.size() - (part == Part::BUT_LAST ? 1 : 0)));
    }
    pktwire::UdpTxSocket socket{vosk::test::SendingTo(vosk::test::UniquePort()), nullptr};
    Part part = Part::ALL;
};

// A peer on the loopback interface that sends to a port of this test program's own.
class Peer {
public:
    explicit Peer(std::uint16_t num_frames) : m_sender{Config(num_frames), m_socket, nullptr} {}

    static oru::configng::PliConfigInstanceNode ReceiverNode(const std::string& more = "") {
        return test::CfgOf(
            "cfg: {busy: false, timeout: \"20 ms\", listen_ip: 127.0.0.1, iface_name: lo, qudex_topic: 7, "
            "listen_udp: " +
            std::to_string(vosk::test::UniquePort()) + more + "}");
    }

    // Stops the receiver between the frames of sample 7, starts it again, and sends the rest and sample 8.
    template <class Sync, class Send>
    void RestartWithinASample(Thread&& receiver, const Sync& sync, Send send) {
        using enum PartSocket::Part;
        for (const auto part : {BUT_LAST, LAST}) {
            receiver.Stop();
            receiver.Start().get();
            m_socket.part = part;
            send(7);
        }
        m_socket.part = ALL;
        send(8);
        EXPECT_TRUE(Eventually([&] { return sync.GetSampleId() == 8; }));
        receiver.Stop();
    }

    template <class Record>
    void Send(const Record& record, unsigned id, AtomClk::time_point time) {
        m_sender.SetSampleId(id);
        ASSERT_FALSE(m_sender.SendSample(gsl::as_bytes(gsl::span{&record, 1}), time, {}));
    }

    void SendCommand(std::byte flags, const std::vector<float>& command, unsigned id,
                     AtomClk::time_point time) {
        pktwire::lspx::Sender::Config config{};
        config.source = pktwire::lspx::OTHER_SOURCE;
        config.endianness = pktwire::lspx::LITTLE_ENDIAN_UNITS;
        config.leader_extended_info_size = 4;
        config.frame_size = static_cast<std::uint32_t>(command.size());
        pktwire::lspx::Sender sender{config, m_sender};
        const std::array<std::byte, 4> info{flags};
        sender.SetSampleId(id);
        ASSERT_FALSE(
            sender.SendSample(info, gsl::as_bytes(gsl::span<const float>{command}), {}, time, {}, {}));
    }

private:
    static pktwire::qudex::Sender::Config Config(std::uint16_t num_frames) {
        pktwire::qudex::Sender::Config config{};
        config.topic = 7;
        config.num_frames = num_frames;
        return config;
    }

    PartSocket m_socket;
    pktwire::qudex::Sender m_sender;
};

// A receiver whose cycles the test runs.
template <class Input>
struct Stepped : Input {
    using Input::Input;
    using Input::RunCycle;
};

TEST_F(Streams, M4AnswersReachTheirObjectAndBrokenOnesAreCounted) {
    const LogCapture log;
    Stepped<M4Input> input{Peer::ReceiverNode()};
    EXPECT_TRUE(input.GetDescription().starts_with("QUDEX receiver listening on: 127.0.0.1:"));
    const auto sync = Get<M4InputDataSync>(false);
    const auto state = RuntimeMonitor::GetInstance().m_m4_input_state;

    Peer peer{3};
    defs::M4SetpointApplied::Payload payload;
    payload.setpoint[5351] = 6.25F;
    payload.applied_time = START;
    peer.Send(payload, 40, START + microseconds{3});
    input.RunCycle();
    EXPECT_EQ(sync->GetSampleId(), 40U);
    EXPECT_EQ(sync->GetTimestamp(), START + microseconds{3});
    EXPECT_EQ(sync->GetDataRef().setpoint[5351], 6.25F);
    EXPECT_EQ(sync->GetDataRef().applied_time, START);

    peer.Send(std::array<std::byte, 21431>{}, 42, START);  // one byte short
    input.RunCycle();
    EXPECT_EQ(Counts(state), std::pair(1U, 1U));
    EXPECT_THAT(log.Texts("", WARN_LOG_LEVEL), ElementsAre(StartsWith("M4Input::Work(): ReceiveSample: ")));
    peer.Send(payload, 43, START);
    input.RunCycle();
    EXPECT_EQ(Counts(state), std::pair(2U, 1U));
}

TEST_F(Streams, AReceiverThatIsRestartedWithinASampleForgetsIt) {
    const LogCapture log;
    Peer m4{3};
    Peer instrument{5};
    m4.RestartWithinASample(M4Input{Peer::ReceiverNode()}, *Get<M4InputDataSync>(false),
                            [&](unsigned id) { m4.Send(defs::M4SetpointApplied::Payload{}, id, START); });
    instrument.RestartWithinASample(
        AoWavefrontCmdInput{Peer::ReceiverNode()}, *Get<AoOutputDataSync>(false), [&](unsigned id) {
            instrument.SendCommand(std::byte{1}, std::vector<float>(defs::WAVEFRONT_CMD_SIZE), id,
                                   AtomClk::now());
        });
    defs::M4Feedback::Payload feedback;
    m4.RestartWithinASample(M4FeedbackInput{Peer::ReceiverNode()}, *Get<AoM4CapSensActDataSync>(),
                            [&](unsigned id) {
                                feedback.counter = 10 * id;
                                m4.Send(feedback, id, START);
                            });
    const auto& monitor = RuntimeMonitor::GetInstance();
    EXPECT_EQ(Counts(monitor.m_m4_input_state), std::pair(1U, 1U));
    EXPECT_EQ(Counts(monitor.m_ao_wavefront_cmd_state), std::pair(1U, 1U));
    EXPECT_THAT(log.Texts("M4FeedbackInput::", WARN_LOG_LEVEL), IsEmpty());
}

TEST_F(Streams, FeedbackCounterSaysEverySampleAfterALoss) {
    const LogCapture log;
    Stepped<M4FeedbackInput> input{Peer::ReceiverNode()};
    const auto sync = Get<AoM4CapSensActDataSync>();
    Peer peer{3};
    defs::M4Feedback::Payload sent;
    defs::M4Feedback::Payload buffer;
    unsigned id = 0;
    for (const std::uint32_t counter : {0U, 5U, 6U, 8U, 9U}) {  // a 0 is forgotten; 7 is lost
        sent.counter = counter;
        sent.values[0] = static_cast<float>(counter);
        peer.Send(sent, ++id, START);
        input.RunCycle(buffer);
        EXPECT_EQ(sync->GetSampleId(), id);
        EXPECT_EQ(sync->GetData().payload.values[0], static_cast<float>(counter));
    }
    EXPECT_THAT(log.Texts("", WARN_LOG_LEVEL),
                ElementsAre("M4FeedbackInput::Work(): difference in counter value: ( 7 != 8 )",
                            "M4FeedbackInput::Work(): difference in counter value: ( 8 != 9 )"));
}

class CommandInput : public Streams {
protected:
    // One cycle of the receiver, which has a command to receive.
    void Receive(unsigned id, bool valid, const std::vector<float>& command, AtomClk::time_point time,
                 bool taken = true) {
        if (taken) m_ins->ClearDataReady();
        m_output->ClearDataReady();
        m_peer.SendCommand(std::byte{valid}, command, id, time);
        m_input.RunCycle();
    }

    struct SteppedInput : AoWavefrontCmdInput {
        using AoWavefrontCmdInput::AoWavefrontCmdInput;
        void RunCycle() { AoWavefrontCmdInput::RunCycle(m_buffers); }
        Buffers m_buffers;
    };

    atomclk::ManualClock m_clock{START};
    Peer m_peer{5};
    SteppedInput m_input{Peer::ReceiverNode()};
    std::shared_ptr<AoTasksInsDataSync> m_ins = Get<AoTasksInsDataSync>(false);
    std::shared_ptr<AoOutputDataSync> m_output = Get<AoOutputDataSync>(false);
    std::shared_ptr<InputStreamState> m_state = RuntimeMonitor::GetInstance().m_ao_wavefront_cmd_state;
};

TEST_F(CommandInput, EveryCommandWakesTheAoOutputAndValidOnesAoTasks) {
    const std::vector<float> command(defs::WAVEFRONT_CMD_SIZE, 1.0F);
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::INS_DRIVEN_SEQUENTIAL);
    Receive(1, true, command, START);
    EXPECT_EQ(Counts(m_state), std::pair(1U, 0U));
    EXPECT_TRUE(m_ins->IsDataReady());
    EXPECT_EQ(m_ins->GetTimestamp(), START);
    EXPECT_EQ(m_ins->GetData().command[4867], 1.0F);
    EXPECT_EQ(m_output->GetData().command_time, START);
    EXPECT_EQ(m_output->GetSampleId(), 1U);

    Receive(2, false, command, START);
    EXPECT_EQ(Counts(m_state), std::pair(1U, 1U));
    EXPECT_TRUE(m_ins->IsNewData());
    EXPECT_FALSE(m_ins->IsDataReady());
    EXPECT_TRUE(m_output->IsDataReady());
}

TEST_F(CommandInput, WhatIsLostOnTheWayToAoTasksIsCounted) {
    const std::vector<float> command(defs::WAVEFRONT_CMD_SIZE);
    const auto& overwritten = RuntimeMonitor::GetInstance().m_command_counts->overwritten_commands;
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::INS_DRIVEN_CASCADE);
    for (unsigned id : {1U, 2U}) Receive(id, true, command, START);
    EXPECT_EQ(overwritten, 0U);
    Receive(6, true, command, START, false);
    Receive(5, true, command, START, false);  // too late
    EXPECT_EQ(overwritten, 1U);
    Receive(7, false, command, START, false);  // stored in part: the one before stands
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::TEL_DRIVEN);
    for (unsigned id : {8U, 9U}) Receive(id, true, command, START, false);
    EXPECT_EQ(m_state->GetTopicData().losses.lost, 3U);
    EXPECT_EQ(m_state->GetTopicData().losses.stale_packets, 5U);
    EXPECT_EQ(overwritten, 1U);
}

// The pair in front and the beat of the AO output go on, whatever is wrong with the rest of a command.
TEST_F(CommandInput, UnusableCommandsCountAsInvalidOnes) {
    VoskTelescopeStateManager::SetCurrentControlMode(VoskControlMode::INS_DRIVEN_CASCADE);
    using Float = std::numeric_limits<float>;
    constexpr std::size_t SIZE = defs::WAVEFRONT_CMD_SIZE;
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
        {SIZE - 1, 1, 0, true, START, "it has another size", false},
        {SIZE, 2, Float::infinity(), true, START, number},
        {SIZE, Float::quiet_NaN(), 0, true, START, number, false},
        {SIZE, 3, Float::quiet_NaN(), false, START, ""},
        {SIZE, 4, 0, true, AtomClk::time_point::max(), time + "9223368436.855 s ahead of our clock"},
        {SIZE, 5, 0, true, START + std::chrono::seconds{1} + nanoseconds{1},
         time + "1.000 s ahead of our clock"},
        {SIZE, 6, 0, true, START + std::chrono::seconds{1}, ""},
        {SIZE, 7, 0, true, AtomClk::time_point::min(), time + "9223375636.855 s behind our clock"},
        {SIZE, 8, 0, true, epoch - nanoseconds{1}, time + "3600.000 s behind our clock"},
        {SIZE, 9, 0, false, epoch - nanoseconds{1}, ""},
        {SIZE, 10, 0, true, epoch, ""},  // stands for no time
    };
    unsigned id = 0;
    float last_first = 0.0F;
    for (const Case& test : cases) {
        SCOPED_TRACE(++id);
        const LogCapture log;
        const auto [valid, invalid] = Counts(m_state);
        std::vector<float> command(test.size);
        command.front() = test.first;
        command.back() = test.last;
        Receive(id, test.valid, command, test.time);
        const bool used = test.valid && test.fault.empty();
        EXPECT_EQ(Counts(m_state), std::pair(valid + (used ? 1 : 0), invalid + (used ? 0 : 1)));
        EXPECT_EQ(m_ins->IsDataReady(), used);
        const InsCmdData stored = m_ins->GetData();
        if (test.keeps_pair) last_first = test.first;
        EXPECT_EQ(stored.command[0], last_first);
        EXPECT_EQ(stored.flags, used ? 1U : 0U);
        // Nobody downstream waits for a time that is none.
        const bool has_time = test.time >= epoch && test.time <= START + std::chrono::seconds{1};
        EXPECT_TRUE(m_output->IsDataReady());
        EXPECT_EQ(m_output->GetData().command_time, has_time ? test.time : START);
        EXPECT_EQ(m_ins->GetTimestamp(), m_output->GetData().command_time);
        EXPECT_EQ(log.Has(WARN_LOG_LEVEL, "ReceiveSample: unusable wavefront command, sample_id = " +
                                              std::to_string(id) + ": " + test.fault),
                  !test.fault.empty());
    }
}

TEST_F(CommandInput, ACommandThatIsTooLongIsAReceiveError) {
    const LogCapture log;
    Receive(1, true, std::vector<float>(defs::WAVEFRONT_CMD_SIZE + 1), START);
    EXPECT_EQ(Counts(m_state), std::pair(0U, 1U));
    EXPECT_FALSE(m_output->IsNewData());
    EXPECT_THAT(log.Texts("", WARN_LOG_LEVEL), ElementsAre(StartsWith("ReceiveSample: error: ")));
}

TEST_F(Streams, CommandInputNeedsATopicAndTheOneFormOfItsBuffer) {
    EXPECT_THROW(AoWavefrontCmdInput{test::CfgOf(
                     "cfg: {busy: false, listen_udp: 1, listen_ip: 127.0.0.1, iface_name: lo}")},
                 oru::configng::PliConfigNotFoundError);
    const auto refusal = [](const std::string& more) {
        return TextOf<std::runtime_error>([&] { AoWavefrontCmdInput{Peer::ReceiverNode(more)}; });
    };
    EXPECT_EQ(refusal(", endianness: BE"), "ERR: cfg.endianness must be LE");
    EXPECT_EQ(refusal(", data_unit_size: 2"), "ERR: cfg.data_unit_size must be 4");
    EXPECT_EQ(refusal(", leader_extended_info_size: 0"), "ERR: cfg.leader_extended_info_size must be 4");
}

}  // namespace
}  // namespace vosk::lumo
