// The threads of M5, PFS, MS, ECMWFSim and the AO output, cycle by cycle without their threads: the test
// plays field stabilisation and AoTasks on one side and the network's peers on the other.

#include "loopBench.hpp"

#include <future>
#include <lumolib/aoOutput.hpp>
#include <lumolib/ecmwfSimInput.hpp>
#include <lumolib/m5InputOutput.hpp>
#include <lumolib/pfsMsInputOutput.hpp>

namespace vosk::lumo {
namespace {

using namespace test;

const std::string GRID = ", send_interval: 2 ms, send_offset: 250 us";

// What the thread sends of one record of the object.
template <class Output, class Sync, class Record>
std::vector<Datagram> Cycle(Output& output, Sync& sync, const Record& record, unsigned id,
                            AtomClk::time_point time) {
    output.socket.datagrams.clear();
    sync.SetData(record, id, time);
    EXPECT_TRUE(output.RunCycle());
    return output.Sent();
}

class ActuatorTest : public LoopTest {
protected:
    ActuatorTest() {
        DefineResamplers(
            "{id: twice, definition: [{type: upsampler, name: lerp, input_sample_rate: 250, "
            "outut_sample_rate: 500}]}");
        // On the equator and the northern meridian, where M5 is turned by half a turn.
        Get<PfsTargetDataSync>()->SetData(pfs::TelPointingData{}, 1U, START);
    }
    atomclk::ManualClock m_clock{START + seconds{1}};
};

// The notification of a record that has been taken.
void NotifyLate(common::WaitSynchronizerFlagBase& flag) {
    flag.SetDataReady();
}

constexpr FloatVectorTT PAIR{1.5F, -2.0F};
const std::string PAIR_BE = "3ff8000000000000c000000000000000";

TEST_F(ActuatorTest, M5IsCommandedInItsOwnCoordinatesOnTheGridAndOnce) {
    Sending<M5Output> output{GRID};
    auto& sync = *Get<M5OutputDataSync>(false);
    for (const auto& [late, sent] : {std::pair{0, 250}, {1, 2250}, {2'000'000, 2250}, {2'000'001, 4250}}) {
        const auto datagrams = Cycle(output, sync, PAIR, 70U, START + nanoseconds{late});
        ASSERT_EQ(datagrams.size(), 1U);
        EXPECT_EQ(datagrams[0].Time(), START + microseconds{sent});
        EXPECT_EQ(datagrams[0].header.sample_id, 70U);
        EXPECT_EQ(datagrams[0].hex, "0000000000000000000000000000f8bf0000000000000040");
    }
    NotifyLate(sync);
    EXPECT_TRUE(output.RunCycle());
    EXPECT_EQ(output.socket.datagrams.size(), 1U);
    output.Start().get();
    for (const unsigned id : {1U, 2U}) {  // the second one while the first waits for its time
        sync.SetData(PAIR, id, START + seconds{9});
        ASSERT_TRUE(id == 2 || Eventually([&] { return !sync.IsNewData(); }));
    }
    output.Stop();
    EXPECT_FALSE(sync.IsDataReady());  // nothing for the next run
}

TEST_F(ActuatorTest, M5IsHeardInBothCoordinates) {
    Running<M5Input> input{ReceiverKeys()};
    Peer{1}.Send(defs::M5PttAct::Payload{0.5, 1.5, -2.0, {7.0}}, 5, START);
    input.RunCycle();
    EXPECT_EQ(Get<M5InputDataSync>()->GetData(), (FloatVectorTT{-1.5F, 2.0F}));
    EXPECT_EQ(Get<M5InputDataSync>()->GetTimestamp(), START + seconds{1});  // of its reception
    const auto [payload, header] = Get<AoM5PttActDataSync>()->GetData();
    EXPECT_EQ((std::array{payload.piston, payload.tip, payload.tilt}), (std::array{0.5F, 1.5F, -2.0F}));
    EXPECT_EQ(AtomClk::time_point{header.m5_time}, START);
}

// It would end in the command of M5, or for ever in the filters of a flowgraph.
TEST_F(ActuatorTest, AMeasurementThatIsNotFiniteGoesNowhere) {
    Running<M5Input> m5{ReceiverKeys(1)};
    Running<PfsInput> measured{ReceiverKeys(2)};
    Running<ECMWFSimInput> simulated{ReceiverKeys(3)};
    unsigned id = 10;
    for (const double value : {std::nan(""), -HUGE_VAL, 1e39, 1.0}) {
        pfs::PFSTargetData target;
        target.pointing.values[1] = target.guide_probes[2].value = value;
        defs::WfsPayload simulation;
        simulation.blocks[3].y = value;
        Peer{1, 1}.Send(defs::M5PttAct::Payload{0.0, 1.0, value, {}}, ++id, START);
        Peer{1, 2}.Send(target, id, START);
        Peer{1, 3}.Send(simulation, id, START);
        m5.RunCycle();
        measured.RunCycle();
        simulated.RunCycle();
        const auto is_current = [id](const auto& sync) { return sync->GetSampleId() == id; };
        EXPECT_EQ(is_current(Get<M5InputDataSync>()), value == 1.0);
        EXPECT_EQ(is_current(Get<PfsInputDataSync>()), value == 1.0);
        EXPECT_EQ(is_current(Get<PfsTargetDataSync>()), value == 1.0);
        EXPECT_EQ(Results(Camera::IMG_PDS)->HasSamples(), value == 1.0);
    }
}

TEST_F(ActuatorTest, PfsCorrectionsCarryTheTimeOfTheSampleAndWhetherCenteringIsOn) {
    Sending<PfsOutput> output{GRID};
    auto& sync = *Get<PfsOutputDataSync>(false);
    const std::string time = "0000034630b8a001";  // an hour and 1 ns
    for (const bool centering : {true, false}) {
        VoskTelescopeStateManager::SetGPCenteringEnabled(centering);
        const auto datagrams =
            Cycle(output, sync, PfsOutputData{{{PAIR, {}, PAIR}}}, 6U, START + nanoseconds{1});
        ASSERT_EQ(datagrams.size(), 1U);
        const std::string flag = centering ? "00000001" : "00000000";
        EXPECT_EQ(datagrams[0].hex,
                  time + PAIR_BE + flag + time + std::string(32, '0') + flag + time + PAIR_BE + flag);
        EXPECT_EQ(datagrams[0].Time(), START + microseconds{2250});
        const auto shown = RuntimeMonitor::GetPerformanceData().GetDataTopic();
        EXPECT_EQ(shown.gp_cmd[2], centering ? PAIR : FloatVectorTT{});
        EXPECT_EQ(shown.gp_cmd_valid, centering);
    }
}

TEST_F(ActuatorTest, MsCorrectionsCarryTheirSendTimeAndAnUpsamplerMakesSeveral) {
    Sending<MSOutput> output{GRID + ", resampler: twice"};
    auto& sync = *Get<MSOutputDataSync>(false);
    std::vector<AtomClk::time_point> times;
    for (const unsigned id : {0U, 1U, 2U}) {
        const auto datagrams = Cycle(output, sync, PAIR, id, START + id * milliseconds{4});
        EXPECT_TRUE(id == 0 || datagrams.size() == 2);
        for (const auto& datagram : datagrams) {
            times.push_back(datagram.Time());
            EXPECT_EQ(datagram.hex,
                      fmt::format("{:016x}", times.back().time_since_epoch().count()) + PAIR_BE + "00000001");
        }
    }
    for (std::size_t i = 1; i < times.size(); ++i) EXPECT_EQ(times[i] - times[i - 1], milliseconds{2});
}

TEST_F(ActuatorTest, SimulatedErrorsReachTheirCamerasWithTheTimesOfTheirBlocks) {
    Running<ECMWFSimInput> input{ReceiverKeys()};
    defs::WfsPayload payload;
    for (unsigned i = 0; i < 4; ++i) {
        payload.blocks[i].timestamp = vosk::test::At(i);  // the first has none
        payload.blocks[i].x = 1.0 + i;
        payload.blocks[i].y = -1.0 - i;
    }
    Peer{1}.Send(payload, 5, START);
    input.RunCycle();
    for (unsigned i = 0; i < 4; ++i) {
        const auto sample = Results(Camera{i})->GetSample();
        ASSERT_TRUE(sample);
        EXPECT_EQ(sample->timestamp, vosk::test::At(i));
        EXPECT_EQ(sample->sample_id, 5U);
        EXPECT_EQ((std::array{sample->slope.flux, sample->slope.x, sample->slope.y}),
                  (std::array{0.0, 1.0 + i, -1.0 - i}));
    }
}

// The AO output, with all four streams to one listener, and delays that fall.
class AoOutputTest : public ActuatorTest {
protected:
    static std::string Stream(const std::string& name, unsigned topic) {
        return fmt::format(", {}: {{ip_dest: 127.0.0.1, udp_dest: {}, qudex_topic: {}, send_delay: {} us}}",
                           name, UniquePort(), topic, 100 - topic);
    }
    void Beat(unsigned id) {
        m_beat->SetData(AoWavefrontCmdTimestamps{START, START + nanoseconds{7}}, id, START);
    }
    // The datagrams that have come.
    std::vector<Datagram> Received() {
        std::vector<Datagram> datagrams;
        std::string bytes(9000, '\0');
        iovec piece{bytes.data(), bytes.size()};
        std::array<mmsghdr, 1> message{};
        message[0].msg_hdr.msg_iov = &piece;
        message[0].msg_hdr.msg_iovlen = 1;
        for (std::error_code error; m_socket.ReceiveBatch(message, error) == 1;)
            datagrams.emplace_back(bytes.substr(0, message[0].msg_len));
        return datagrams;
    }

    pktwire::UdpRxSocket m_socket{vosk::test::Listening(UniquePort()), nullptr};
    AoOutputDataSync* m_beat = Get<AoOutputDataSync>(false).get();
    Running<AoOutput> m_output{"{busy: false" + Stream("m5_ptt_act", 1) + Stream("fs_u4", 2) +
                               Stream("m4_setpoint_applied", 3) + Stream("m4_cap_sens_act", 4) + "}"};
};

TEST_F(AoOutputTest, FourSamplesLeaveInTheirOrderThoughTheirDelaysFall) {
    Get<AoM5PttActDataSync>()->SetData(defs::M5PttAct::Payload{0.5, 1.5, -2.0, {}}, 1U,
                                       START + nanoseconds{3});
    Beat(9);
    EXPECT_TRUE(m_output.RunCycle());
    const auto datagrams = Received();
    std::vector<unsigned> topics;
    for (const auto& datagram : datagrams) {
        topics.push_back(datagram.header.topic);
        EXPECT_EQ(datagram.header.sample_id, 9U);
        EXPECT_EQ(datagram.Time(), START + microseconds{100 - topics.back()});
    }
    ASSERT_THAT(topics, ElementsAre(1, 1, 1, 2, 2, 2, 3, 3, 3, 3, 3, 4, 4, 4, 4, 4));
    // The beat's time of reception, M5's time, and that there was data.
    EXPECT_THAT(datagrams[0].hex, EndsWith("0000034630b8a0070000034630b8a003" + std::string(32, '0') + "01"));
    EXPECT_THAT(datagrams[1].hex, EndsWith("0000003f0000c03f000000c0"));
    EXPECT_EQ(AllocationsOf([&] { Beat(9), m_output.RunCycle(); }), 0U);
}

TEST_F(AoOutputTest, ABeatThatComesDuringTheSendsIsDroppedWheneverItsNotificationComes) {
    const LogCapture log;
    m_clock.Advance(-seconds{1});
    Beat(0);  // it is replaced before anybody takes it
    Beat(1);
    auto cycle = std::async(std::launch::async, [this] { return m_output.RunCycle(); });
    ASSERT_TRUE(Eventually([&] { return !log.Texts("AoOutput waiting until").empty(); }));
    Beat(2);
    Beat(3);
    m_clock.Advance(seconds{1});
    EXPECT_TRUE(cycle.get());
    EXPECT_EQ(Counted().dropped_beats, 3U);
    EXPECT_FALSE(m_beat->IsDataReady());
    EXPECT_EQ(Received().size(), 16U);
    NotifyLate(*m_beat);
    EXPECT_TRUE(m_output.RunCycle());
    EXPECT_EQ(Received().size(), 0U);
}

template <class Output, class Sync, class Record>
std::size_t AllocationsOfSending(const Record& record) {
    const pktwire::UdpRxSocket listener{vosk::test::Listening(UniquePort()), nullptr};
    Running<Output> output{fmt::format("{{busy: false, ip_dest: 127.0.0.1, udp_dest: {}}}", UniquePort())};
    unsigned id = 0;
    return AllocationsOf([&] { Get<Sync>(false)->SetData(record, ++id, START), output.RunCycle(); });
}

template <class Input, class Record>
std::size_t AllocationsOfReceiving() {
    Running<Input> input{ReceiverKeys()};
    Peer peer{1};
    const Record record;
    unsigned id = 0;
    return AllocationsOf([&] { peer.Send(record, ++id, START), input.RunCycle(); });
}

TEST_F(ActuatorTest, NoLoopAllocates) {
    EXPECT_EQ((AllocationsOfSending<M5Output, M5OutputDataSync>(PAIR)), 0U);
    EXPECT_EQ((AllocationsOfSending<PfsOutput, PfsOutputDataSync>(PfsOutputData{})), 0U);
    EXPECT_EQ((AllocationsOfSending<MSOutput, MSOutputDataSync>(PAIR)), 0U);
    EXPECT_EQ((AllocationsOfReceiving<M5Input, defs::M5PttAct::Payload>()), 0U);
    EXPECT_EQ((AllocationsOfReceiving<PfsInput, pfs::PFSTargetData>()), 0U);
    EXPECT_EQ((AllocationsOfReceiving<ECMWFSimInput, defs::WfsPayload>()), 0U);
}

}  // namespace
}  // namespace vosk::lumo
