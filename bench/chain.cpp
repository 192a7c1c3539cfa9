// The whole chain: from a frame's last packet through wavefront sensor, GPAO and AO to the setpoint that
// waits for its send time, and hop by hop. The flowgraph is a thread here that answers each record with its
// coefficients. Beside it the same wake-ups bare, with the work that nobody can leave out: the kernels, each
// matrix streamed once, the copies. M4 answers each setpoint, so that GpaoInput has one to project.

#include "legs.hpp"
#include "wfsBench.hpp"

#include <fmt/format.h>
#include <lumolib/aoTasks.hpp>
#include <lumolib/gpaoInput.hpp>
#include <lumolib/gpaoOutput.hpp>
#include <lumolib/lisaInput.hpp>
#include <lumolib/m4Output.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>

#include <array>
#include <memory>

namespace vosk::bench {
namespace {

using namespace std::chrono_literals;
using common::shmif::GpaoTopicIn;
using common::shmif::GpaoTopicOut;
using Floats = std::vector<float>;

constexpr std::size_t MANAGED_MODES = 200;
constexpr Sensor LARGEST_CHAIN{32, 8};

// Which thread runs where; a thread that spins has its CPU for itself.
struct Layout {
    std::string name;
    bool busy;
    bool tasks_busy;
    int receiver, worker, gpao_input, flowgraph, gpao_output, tasks, m4_output, reader;
};

enum Hop { COEFFICIENTS, FLOWGRAPH, COMMAND, SETPOINT, HOPS };
constexpr std::array<const char*, HOPS> HOP_NAMES{"last packet to coefficients", "to the flowgraph's thread",
                                                  "to the command for AoTasks",
                                                  "to the setpoint for M4Output"};

using Moments = std::array<steady_clock::time_point, HOPS + 1>;  // the last packet, then the ends of the hops

// What a run of samples gives, in microseconds.
class Samples {
public:
    void Add(const Moments& moments) {
        for (std::size_t hop = 0; hop < HOPS; ++hop)
            m_hops[hop].push_back(Us(moments[hop + 1] - moments[hop]));
        m_whole.push_back(Us(moments.back() - moments.front()));
    }
    Figures Whole() { return FiguresOf(m_whole); }
    Figures OfHop(std::size_t hop) { return FiguresOf(m_hops[hop]); }

private:
    std::array<std::vector<double>, HOPS> m_hops;
    std::vector<double> m_whole;
};

// Stands between an exchange object and the synchroniser that its reader waits on, and notes when the object
// was written.
class Probe final : public common::WaitSynchronizer {
public:
    explicit Probe(std::shared_ptr<common::WaitSynchronizer> inner) : m_inner{std::move(inner)} {}

    // Before the threads start.
    static std::shared_ptr<Probe> On(common::WaitSynchronizerFlagBase& flag) {
        const auto inner = flag.GetSynchronizer();
        auto probe = std::make_shared<Probe>(inner);
        flag.ReplaceSynchronizer(probe);
        inner->RegisterFlag(flag);
        return probe;
    }

    bool Wait(const int& running) override { return m_inner->Wait(running); }
    bool WaitUntil(const AtomClk::time_point& time, const int& running) override {
        return m_inner->WaitUntil(time, running);
    }
    bool WaitForNotReady(const int& running) override { return m_inner->WaitForNotReady(running); }
    bool WaitForNotReadyUntil(const AtomClk::time_point& time, const int& running) override {
        return m_inner->WaitForNotReadyUntil(time, running);
    }
    void Notify() override {
        if (IsAnyFlagReady()) m_time = steady_clock::now();
        m_inner->Notify();
    }
    steady_clock::time_point Time() const { return m_time; }

private:
    std::shared_ptr<common::WaitSynchronizer> m_inner;
    std::atomic<steady_clock::time_point> m_time{};
};

using Flowgraph = AnsweringFlowgraph<GpaoTopicIn, GpaoTopicOut>;
void AnswerCoefficients(const GpaoTopicIn& in, GpaoTopicOut& out) {
    out.gpao_cmd = in.coefficients;
}

struct Matrices {
    Floats ins2gpao = Floats(lumo::GpaoInput::INS2GPAO_SIZE, 1e-3F);
    Floats gpao2ins = Floats(lumo::GpaoOutput::GPAO2INS_SIZE, 1e-3F);
    Floats m2p = Floats(defs::M4_CMD_SIZE * MANAGED_MODES, 1e-3F);
};

// The library's threads, M4 and the camera.
class Chain {
public:
    Chain(const CameraSurroundings& files, const LisaFrame& frame, const Sensor& sensor, const Layout& layout)
        : m_sender{frame, m_port} {
        CameraSurroundings::Renew();
        const auto mode = defs::VoskControlMode::TEL_DRIVEN_WITH_GPAO_TT;
        lumo::VoskTelescopeStateManager::SetCurrentControlMode(mode);
        const std::array workers{layout.worker};
        Add<lumo::WfsLisaInput>(WfsNode(files, sensor, m_port, layout.receiver, workers, layout.busy));
        Add<lumo::GpaoInput>(
            Surroundings::NodeOf(fmt::format("busy: {}, cpu: {}, shm_topic: gpao_in, timeout: 500 us, "
                                             "diagnostic_mute: true, ins2gpao_path: {}",
                                             layout.busy, layout.gpao_input, files.Path("ins2gpao.fits"))));
        Add<lumo::GpaoOutput>(Surroundings::NodeOf(fmt::format(
            "busy: {}, cpu: {}, shm_topic: gpao_out, timeout: {}, diagnostic_mute: true, gpao2ins_path: {}",
            layout.busy, layout.gpao_output, layout.busy ? "0 us" : "10 ms", files.Path("gpao2ins.fits"))));
        // Ahead of AoTasks: who makes an exchange object says how its reader waits.
        Add<lumo::M4Output>(Surroundings::NodeOf(fmt::format(
            "busy: {}, cpu: {}, ip_dest: 127.0.0.1, udp_dest: {}, qudex_topic: 1, send_interval: 1 ms",
            layout.busy, layout.m4_output, m_m4.Port())));
        Add<lumo::AoTasks>(Surroundings::NodeOf(fmt::format(
            "busy: {}, cpu: {}, m4_send_delay: 500 us, m4_response_timeout: 100 ms, gpao_highest_mode: 52, "
            "delta_scaling: true, managed_modes: {}, m2p_path: {}, threshold_velocity: 1e6, threshold_gap: "
            "1e6",
            layout.tasks_busy, layout.tasks, MANAGED_MODES, files.Path("m2p.fits"))));
        m_flowgraph.emplace("gpao", layout.flowgraph, layout.busy, AnswerCoefficients);
        m_coefficients = Probe::On(Object<lumo::GpaoCoefficientsDataSync>(layout.busy));
        m_command = Probe::On(Object<lumo::AoTasksGpaoDataSync>(layout.busy));
        m_setpoint = Probe::On(Setpoint(layout));
        for (const auto& thread : m_threads) thread->Start().get();
        m_sender.socket.SetPause(PAUSE);
    }
    ~Chain() {
        for (const auto& thread : m_threads) thread->Stop();
    }
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;

    struct Cycle {
        Moments moments;
        double planned_wait_us;
        double lateness_us;  // of the first packet, behind its planned time
    };
    // None of a frame that was lost or a setpoint that was late, as on a machine with other work.
    std::optional<Cycle> Run(const Layout& layout) {
        std::this_thread::sleep_for(PAUSE);
        m_sender.SendFrame();
        const auto sent = m_m4.TryReceiveTime(200ms);
        if (!sent) return {};
        for (std::size_t i = 1; i < defs::M4Setpoint::SEGMENTS.size(); ++i) m_m4.ReceiveTime();
        auto& setpoint = Setpoint(layout);
        const auto planned = setpoint.GetData().send_time;
        const auto stored_ago = steady_clock::now() - m_setpoint->Time();
        const auto stored = AtomClk::now() - stored_ago;
        Object<lumo::M4InputDataSync>(layout.tasks_busy)
            .SetData(*m_answer, setpoint.GetSampleId(), AtomClk::now());
        return Cycle{{m_sender.socket.LastPacketTime(), m_coefficients->Time(), m_flowgraph->Time(),
                      m_command->Time(), m_setpoint->Time()},
                     Us(planned - stored),
                     Us(*sent - planned)};
    }

private:
    static lumo::M4OutputDataSync& Setpoint(const Layout& layout) {
        return Object<lumo::M4OutputDataSync>(layout.busy);
    }
    template <class T>
    void Add(const oru::configng::PliConfigInstanceNode& node) {
        m_threads.push_back(std::make_unique<T>(node));
    }

    const std::uint16_t m_port = FreePort();
    LisaSender m_sender;
    StampedSocket m_m4;
    const std::unique_ptr<defs::M4SetpointApplied::Payload> m_answer =
        std::make_unique<defs::M4SetpointApplied::Payload>();
    std::vector<std::unique_ptr<lumo::Thread>> m_threads;
    std::optional<Flowgraph> m_flowgraph;
    std::shared_ptr<Probe> m_coefficients;
    std::shared_ptr<Probe> m_command;
    std::shared_ptr<Probe> m_setpoint;
};

Samples MeasureBare(const LisaFrame& frame, const Sensor& sensor, const Matrices& matrices,
                    const Layout& layout) {
    const BareSocket inside;
    const BareSocket outside;
    std::array<std::byte, 64> packet{};
    Share share{frame, Regions(sensor.size, sensor.columns)};
    auto raw = frame.raw;
    const Floats control(2 * sensor.columns * sensor.columns * MODES, 1e-3F);
    GpaoTopicIn in;
    const GpaoTopicIn made_in;
    GpaoTopicOut out;
    const GpaoTopicOut made_out;
    const Floats made(defs::M4_CMD_SIZE);
    Floats command(defs::INS_CMD_SIZE);
    Floats setpoint(defs::M4_CMD_SIZE);
    Samples samples;
    WithBareChain(
        layout.busy,
        {{layout.receiver, [&] { inside.Receive(packet, layout.busy ? MSG_DONTWAIT : 0); }},
         {layout.worker,
          [&] {
              share.Compute(raw);
              Stream(control);
          }},
         {layout.gpao_input,
          [&] {
              Stream(matrices.ins2gpao);
              in = made_in;
          }},
         {layout.flowgraph, [&] { out = made_out; }},
         {layout.gpao_output,
          [&] {
              Stream(matrices.gpao2ins);
              std::copy_n(made.begin(), command.size(), command.begin());
          }},
         {layout.tasks,
          [&] {
              Stream(matrices.m2p);
              setpoint = made;
          }}},
        [&](auto& chain) {
            RunOn(layout.reader, [&] {
                for (int i = 0; i < WARM_UP + SAMPLES; ++i) {
                    chain.Start();
                    std::ranges::copy(frame.raw, raw.begin());
                    std::this_thread::sleep_for(PAUSE);
                    const auto start = steady_clock::now();
                    outside.SendTo(inside, packet);
                    chain.Await();
                    if (i < WARM_UP) continue;
                    samples.Add({start, chain.EndOf(1), chain.EndOf(3), chain.EndOf(4), chain.EndOf(5)});
                }
            });
        });
    return samples;
}

void BenchLayout(const CameraSurroundings& files, const LisaFrame& frame, const Sensor& sensor,
                 const Matrices& matrices, const Layout& layout, std::vector<Row>& rows) {
    Samples ours;
    std::vector<double> planned;
    std::vector<double> waited;
    RunOn(layout.reader, [&] {
        Chain chain{files, frame, sensor, layout};
        for (int i = 0; i < WARM_UP; ++i) chain.Run(layout);
        for (int i = 0; i < SAMPLES; ++i) {
            const auto cycle = chain.Run(layout);
            if (!cycle) continue;
            ours.Add(cycle->moments);
            planned.push_back(cycle->planned_wait_us);
            waited.push_back(cycle->planned_wait_us + cycle->lateness_us);
        }
    });
    if (planned.size() < SAMPLES * 9 / 10)
        throw std::runtime_error("setpoints are late: too much other work");
    Samples bare = MeasureBare(frame, sensor, matrices, layout);
    const std::string name = fmt::format("{} to setpoint, {}", NameOf(sensor), layout.name);
    AddRows(name, "bare wake-ups, kernels, matrices, copies", ours.Whole(), bare.Whole(), rows);
    for (std::size_t hop = 0; hop < HOPS; ++hop) {
        rows.push_back({fmt::format("  {}, p50", HOP_NAMES[hop]), "the same hop, bare", "us",
                        ours.OfHop(hop).p50, bare.OfHop(hop).p50});
    }
    if (sensor.columns != LARGEST_CHAIN.columns) return;
    AddRows("  then M4Output until its packet is out", "the planned wait", FiguresOf(waited),
            FiguresOf(planned), rows);
}

std::vector<Layout> Layouts() {
    const auto cpus = SomeCpus(8);
    const int a = cpus[0];
    const int b = cpus[1];
    std::vector<Layout> layouts{
        {"asleep, two CPUs by turns", false, false, a, b, a, b, a, b, a, a},
        {"asleep, one CPU", false, false, a, a, a, a, a, a, a, a},
        {"one CPU, AoTasks spinning on its own", false, true, a, a, a, a, a, b, a, a}};
    if (cpus.size() == 8) {
        layouts.push_back(
            {"spinning", true, true, cpus[0], cpus[1], cpus[2], cpus[3], cpus[4], cpus[5], cpus[6], cpus[7]});
    }
    return layouts;
}

}  // namespace

std::vector<Row> BenchChain() {
    if (SomeCpus(2).size() < 2) return {};
    const LisaFrame frame{TapReadout()};
    const CameraSurroundings files{frame};
    const Matrices matrices;
    files.Write("ins2gpao.fits", matrices.ins2gpao, {MODES, defs::M4_CMD_SIZE});
    files.Write("gpao2ins.fits", matrices.gpao2ins, {defs::INS_CMD_SIZE, MODES});
    files.Write("m2p.fits", matrices.m2p, {MANAGED_MODES, defs::M4_CMD_SIZE});
    std::vector<Row> rows;
    for (const Sensor& sensor : {Sensor{10, 8}, Sensor{20, 8}, LARGEST_CHAIN}) {
        for (const Layout& layout : Layouts()) BenchLayout(files, frame, sensor, matrices, layout, rows);
    }
    return rows;
}

}  // namespace vosk::bench
