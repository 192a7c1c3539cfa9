// All threads of the thread table at once, fed and answered turn by turn, with every call of operator new
// counted: between the steps of their telemetry none of them allocates.

#include "cameraBench.hpp"

#include <lumolib/aliceInput.hpp>
#include <lumolib/imageProcessing.hpp>
#include <lumolib/threadTable.hpp>
#include <vosk/common/shmif/shmRt.hpp>
#include <vosk/defs/shmRecords.hpp>

namespace vosk::lumo {
namespace {

using namespace test;
using common::shmif::ShmReaderRT;
using common::shmif::ShmWriterRT;

// Where the library listens; it sends to the last one.
enum { WFS, ALICE, LISA, MARANA, COMMAND, M4_ANSWER, M4_SENSORS, M5, PFS, SIMULATION, SETPOINT };

class AllLoops : public CameraTest {
protected:
    AllLoops() {
        VoskTelescopeStateManager::SetActiveCameraFS(defs::Camera::WFS_GP1);
        m_place = WFS;
        Add<WfsLisaInput>(WfsNode(100, 2));
        m_place = ALICE;
        Add<ImageProcessing>(AliceNode());
        Add<AliceInput>(AliceNode());
        m_place = LISA;
        Add<ImgLisaInput>(ImgLisaNode());
        m_place = MARANA;
        Add<ImgMaranaInput>(MaranaNode());
        const auto cfg = CfgOf("cfg: {" + Keys() + "}");
        for (const auto sections : {QudexSections(), CameraAndCommandSections(), FlowgraphSections()}) {
            WalkElements(cfg, sections, [this](const StreamEntry& entry, const auto& element) {
                entry.make(element, [this](auto thread) { m_threads.push_back(std::move(thread)); });
            });
        }
        for (const auto& thread : m_threads) thread->Start().get();
        m_fs_in.emplace(m_shm, "fs_in");
        m_fs_out.emplace(m_shm, "fs_out");
        m_gpao_in.emplace(m_shm, "gpao_in");
        m_gpao_out.emplace(m_shm, "gpao_out");
    }
    ~AllLoops() override {
        for (const auto& thread : m_threads) thread->Stop();
    }

    template <class T>
    void Add(const oru::configng::PliConfigInstanceNode& node) {
        m_threads.push_back(std::make_unique<T>(node));
    }

    // Of all but the cameras.
    std::string Keys() const {
        const auto matrix = [this](const std::string& name, std::size_t columns, std::size_t rows) {
            WriteFits(directory / name, std::vector<float>(rows * columns, 0.01F), {columns, rows});
            return directory / name;
        };
        const std::string to = "{busy: false, ip_dest: " + vosk::test::LoopbackOf(SETPOINT) +
                               ", udp_dest: " + std::to_string(vosk::test::PortOf(SETPOINT)) +
                               ", qudex_topic: ";
        const std::string ao = to + "2, send_delay: 0 us}, ";
        const std::string grid = ", update_interval: 1 ms, update_offset: 0 us}";
        return "ao: {wavefront_cmd_stream: [" + ReceiverKeys(COMMAND) +
               "], output: [{busy: false, m5_ptt_act: " + ao + "fs_u4: " + ao + "m4_setpoint_applied: " + ao +
               "m4_cap_sens_act: " + ao + "}], ao_tasks: [" +
               AoTasksKeys(directory, std::vector<float>(20 * M4_CMD_SIZE, 0.01F), "0 us", "60000 ms") +
               "]}, m4: {input: [" + ReceiverKeys(M4_ANSWER) + "], output: [" + to + std::to_string(TOPIC) +
               "}], feedback: [" + ReceiverKeys(M4_SENSORS) + "]}, m5: {input: [" + ReceiverKeys(M5) +
               "], output: [" + to + "2}]}, pfs: {input: [" + ReceiverKeys(PFS) + "], output: [" + to +
               "2}]}, ms: {output: [" + to + "2}]}, ecmwfsim: {input: [" + ReceiverKeys(SIMULATION) +
               "]}, fieldstabilization: {input: [{busy: false, shm_topic: fs_in" + grid +
               "], output: [{busy: false, shm_topic: fs_out" + grid +
               "]}, gpao: {input: [{busy: false, shm_topic: gpao_in, timeout: 500 us, ins2gpao_path: " +
               matrix("ins2gpao.fits", MODES, M4_CMD_SIZE) +
               "}], output: [{busy: false, shm_topic: gpao_out, gpao2ins_path: " +
               matrix("gpao2ins.fits", defs::INS_CMD_SIZE, MODES) + "}]}";
    }

    // A sample to every receiver; each camera has a socket's buffer for itself.
    void Feed(unsigned id) {
        const auto frame = [&](CameraPeer& peer, defs::Camera camera, const auto& info, std::size_t pixels) {
            const auto before = StateOf(camera).sample_count;
            peer.Send(info, std::span{m_pixels}.first(pixels), FIRST_ID + id, m_clock_time);
            ASSERT_TRUE(Eventually([&] { return StateOf(camera).sample_count > before; }));
        };
        const defs::TransportTimepoint exposure{m_clock_time};
        const defs::MaranaLeaderInfo window{exposure, 512, 48, 10, 2000, 100};
        frame(m_wfs, defs::Camera::WFS_GP1, exposure, SIZE);
        frame(m_alice, defs::Camera::IMG_GP1, exposure, 240UL * 240UL);
        frame(m_lisa, defs::Camera::IMG_GP2, exposure, SIZE);
        frame(m_marana, defs::Camera::IMG_PDS, window, 480);
        m_m5.Send(defs::M5PttAct::Payload{}, id, m_clock_time);
        m_pfs.Send(pfs::PFSTargetData{}, id, m_clock_time);
        m_simulation.Send(defs::WfsPayload{}, id, m_clock_time);
        m_sensors_record.counter = id;
        m_sensors.Send(m_sensors_record, id, m_clock_time);
        m_instrument.SendCommand(true, m_command, id, m_clock_time);
    }

    void AnswerAsFlowgraphs(unsigned id) {
        common::shmif::FieldStablizationTopicIn fs_in;
        ASSERT_TRUE(m_fs_in->TimedReceive(&fs_in, PATIENCE));
        common::shmif::FieldStablizationTopicOut fs_out;
        fs_out.timestamp = fs_out.input_timestamp = fs_in.timestamp;
        fs_out.sample_id = id;
        EXPECT_TRUE(m_fs_out->TimedSend(&fs_out, PATIENCE));
        common::shmif::GpaoTopicIn gpao_in;
        ASSERT_TRUE(m_gpao_in->TimedReceive(&gpao_in, PATIENCE));
        common::shmif::GpaoTopicOut gpao_out;
        gpao_out.timestamp = gpao_out.input_timestamp = gpao_in.timestamp;
        gpao_out.sample_id = id;
        EXPECT_TRUE(m_gpao_out->TimedSend(&gpao_out, PATIENCE));
    }

    // An answer that comes before AoTasks has begun to wait is forgotten: then M4 answers again.
    void AnswerAsM4() {
        const auto buffer = gsl::as_writable_bytes(gsl::span{&m_setpoint, 1});
        const auto [error, sample] = m_receiver.ReceiveSample(buffer, PATIENCE);
        ASSERT_TRUE(sample) << error.message();
        const auto id = sample->first->SampleId();
        const auto& applied = *Get<GpaoM4SetpointAppliedDataSync>();
        const auto& received = *RuntimeMonitor::GetInstance().m_m4_input_state;
        for (int attempt = 0; applied.GetSampleId() != id; ++attempt) {
            ASSERT_LT(attempt, 100);
            m_answer_time += nanoseconds{1};
            m_m4.Send(m_answer, id, m_answer_time);
            ++m_answers;
            // None is left for the next turn.
            ASSERT_TRUE(Eventually([&] { return received.GetTopicData().sample_count == m_answers; }));
            for (int i = 0; i < 50 && applied.GetSampleId() != id; ++i)
                std::this_thread::sleep_for(milliseconds{1});
        }
    }

    // Those of the streams that have threads here.
    static constexpr std::size_t STREAMS = 16;
    static std::size_t StreamsBeyond(unsigned count) {
        return static_cast<std::size_t>(std::ranges::count_if(
            RuntimeMonitor::GetInstance().m_stream_states,
            [count](const auto& state) { return state->GetTopicData().sample_count > count; }));
    }

    void Turn(unsigned id) {
        Feed(id);
        m_clock.Advance(milliseconds{1});
        m_clock_time += milliseconds{1};
        AnswerAsFlowgraphs(id);
        AnswerAsM4();
        ASSERT_TRUE(Eventually([&] {
            return StreamsBeyond(id - 1) == STREAMS && Get<AoM4CapSensActDataSync>()->GetSampleId() == id &&
                   Get<GpaoM4SetpointGpaoDataSync>()->GetSampleId() == id;
        }));
    }

    AtomClk::time_point m_clock_time = START;
    atomclk::ManualClock m_clock{START};
    common::shmif::ShmIf m_shm;
    std::vector<std::unique_ptr<Thread>> m_threads;
    const Pixels m_pixels = Pixels(SIZE, 1000);
    CameraPeer m_wfs{206, WFS}, m_alice{62, ALICE}, m_lisa{206, LISA}, m_marana{7, MARANA};
    Peer m_instrument{5, COMMAND}, m_m4{3, M4_ANSWER}, m_sensors{3, M4_SENSORS}, m_m5{1, M5}, m_pfs{1, PFS},
        m_simulation{1, SIMULATION};
    const std::array<float, WAVEFRONT_CMD_SIZE> m_command{};
    defs::M4Feedback::Payload m_sensors_record{};
    defs::M4Setpoint::Payload m_setpoint{};
    const defs::M4SetpointApplied::Payload m_answer{};
    AtomClk::time_point m_answer_time = START;
    unsigned m_answers = 0;
    pktwire::UdpRxSocket m_socket{[] {
                                      auto config = vosk::test::Listening(vosk::test::PortOf(SETPOINT));
                                      config.ip.listen = pktwire::Ipv4{vosk::test::LoopbackOf(SETPOINT)};
                                      return config;
                                  }(),
                                  nullptr};
    pktwire::qudex::Receiver m_receiver{{.topic = TOPIC, .num_frames = 3}, m_socket, nullptr};
    std::optional<ShmReaderRT> m_fs_in, m_gpao_in;
    std::optional<ShmWriterRT> m_fs_out, m_gpao_out;
};

TEST_F(AllLoops, OfTheThreadTableAllocateNothingTogether) {
    std::size_t before = 0;
    for (unsigned id = 1; id <= 15; ++id) {
        if (id == 6) before = vosk::test::AllocationsOfAllThreads();
        Turn(id);
        if (HasFatalFailure()) return;
    }
    EXPECT_EQ(vosk::test::AllocationsOfAllThreads(), before);
}

}  // namespace
}  // namespace vosk::lumo
