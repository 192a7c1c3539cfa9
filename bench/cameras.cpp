// From a frame's last packet to what a camera's threads make of it, against the sum of what that road cannot
// do without: a bare packet and futexes in place of the wake-ups, the kernels on the same data, the control
// matrix streamed once. Also: what a second worker brings, and how many frames a second hold.

#include "wfsBench.hpp"

#include <fmt/format.h>
#include <lumolib/aliceInput.hpp>
#include <lumolib/dataSyncManager.hpp>
#include <lumolib/imageProcessing.hpp>
#include <lumolib/lisaInput.hpp>
#include <lumolib/resamplerManager.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <vosk/common/numaThreadPool.hpp>

#include <optional>

namespace vosk::bench {
namespace {

using namespace std::chrono_literals;
using defs::CentroidError;
using image_processing::Roi;

const Camera ALICE{"ALICE", 62, 240 * 240, pktwire::lspx::LITTLE_ENDIAN_UNITS};

struct Placement {
    // The receiver and the worker that it wakes first have CPUs of their own. The reader, which sends too,
    // takes what is left, or else the receiver's CPU, where an adapter would deliver the packets.
    Placement(const std::vector<int>& cpus, std::size_t count)
        : receiver{cpus[0]}, reader{cpus[count + 1 < cpus.size() ? count + 1 : 0]} {
        for (std::size_t i = 0; i < count; ++i) workers.push_back(cpus[(1 + i) % cpus.size()]);
    }
    int receiver;
    std::vector<int> workers;
    int reader;
};

// A packet wakes the receiver, which wakes the workers, the last of which wakes the reader.
template <class Link>
class BareWakeUps {  // NOLINT(clang-analyzer-optin.performance.Padding): once a row
public:
    BareWakeUps(const Placement& placement, bool busy)
        : m_flags{busy ? MSG_DONTWAIT : 0}, m_wake(placement.workers.size()), m_left{m_wake.size()} {
        m_threads.push_back(nodepin::MakeThread("bare", OnCpu(placement.receiver), [this] { Receive(); }));
        for (std::size_t i = 0; i < m_wake.size(); ++i) {
            m_threads.push_back(
                nodepin::MakeThread("bare", OnCpu(placement.workers[i]), [this, i] { Work(m_wake[i]); }));
        }
    }
    ~BareWakeUps() {
        m_outside.SendTo(m_inside, {});
        for (std::thread& thread : m_threads) thread.join();
    }
    BareWakeUps(const BareWakeUps&) = delete;
    BareWakeUps& operator=(const BareWakeUps&) = delete;

    double UsToReader() {
        const auto start = Send();
        m_done.Await();
        return UsSince(start);
    }
    double UsToLastWorker() {
        const auto start = Send();
        m_done.Await();
        return std::chrono::duration<double, std::micro>(m_end - start).count();
    }

private:
    steady_clock::time_point Send() {
        std::this_thread::sleep_for(PAUSE);
        const auto start = steady_clock::now();
        m_outside.SendTo(m_inside, m_packet);
        return start;
    }
    void Receive() {
        std::array<std::byte, 64> packet{};
        do {
            m_stops = !m_inside.Receive(packet, m_flags);
            for (Link& link : m_wake) link.Signal();
        } while (!m_stops);
    }
    void Work(Link& wake) {
        for (;;) {
            wake.Await();
            if (m_stops) return;
            if (m_left.fetch_sub(1) != 1) continue;
            m_left = m_wake.size();
            m_end = steady_clock::now();
            m_done.Signal();
        }
    }

    const int m_flags;
    std::array<std::byte, 64> m_packet{};
    BareSocket m_inside;
    BareSocket m_outside;
    std::vector<Link> m_wake;
    Link m_done;
    std::atomic<std::size_t> m_left;
    std::atomic<bool> m_stops{false};
    steady_clock::time_point m_end;
    std::vector<std::thread> m_threads;
};

template <class Sample>
Figures MeasureWakeUps(const Placement& placement, bool busy, Sample sample) {
    Figures figures{};
    RunOn(placement.reader, [&] {
        const auto measure = [&](auto bare) { figures = Measure([&] { return sample(*bare); }); };
        if (busy) {
            measure(std::make_unique<BareWakeUps<SpinLink>>(placement, true));
        } else {
            measure(std::make_unique<BareWakeUps<FutexLink>>(placement, false));
        }
    });
    return figures;
}

class WfsLoop {
public:
    WfsLoop(const CameraSurroundings& files, const LisaFrame& frame, const Sensor& sensor,
            const Placement& placement, bool busy)
        : m_sender{frame, m_port} {
        CameraSurroundings::Renew();
        m_sync = lumo::DataSyncManager::GetInstance().GetOrRegisterDataSync<lumo::GpaoCoefficientsDataSync>(
            lumo::GpaoCoefficientsDataSync::InstanceTag{}, busy);
        m_input.emplace(WfsNode(files, sensor, m_port, placement.receiver, placement.workers, busy));
        m_input->Start().get();
    }
    ~WfsLoop() { m_input->Stop(); }
    WfsLoop(const WfsLoop&) = delete;
    WfsLoop& operator=(const WfsLoop&) = delete;

    double UsToCoefficients() {
        m_sender.socket.SetPause(PAUSE);
        m_sender.SendFrame();
        m_sync->GetSynchronizer()->WaitUntil(atomclk::AtomClk::now() + PATIENCE, m_running);
        if (!m_sync->IsDataReady()) throw std::runtime_error("no coefficients of a frame");
        m_sync->ClearDataReady();
        return UsSince(m_sender.socket.LastPacketTime());
    }

    // Whether all frames come in, and none while the one before is in work.
    bool Holds(double rate) {
        constexpr auto STEP = 2s;
        m_sender.socket.SetPause(0us);
        const auto period = std::chrono::duration_cast<steady_clock::duration>(1s / rate);
        const auto frames = static_cast<std::uint32_t>(STEP / period);
        const auto before = Count();
        auto next = steady_clock::now();
        for (std::uint32_t i = 0; i < frames; ++i, next += period) {
            std::this_thread::sleep_until(next);
            m_sender.SendFrame();
        }
        const bool is_on_time = steady_clock::now() < next + period;
        std::this_thread::sleep_for(100ms);
        const auto after = Count();
        return is_on_time && after.late == before.late && after.frames - before.frames == frames;
    }

private:
    struct Counts {
        std::uint32_t frames;
        unsigned long late;
    };
    static Counts Count() {
        const auto& figures = lumo::RuntimeMonitor::GetInstance().Of(WFS);
        return {figures.state->GetTopicData().sample_count, figures.statistics->GetLateCount()};
    }

    const int m_running = 1;
    const std::uint16_t m_port = FreePort();
    LisaSender m_sender;
    std::shared_ptr<lumo::GpaoCoefficientsDataSync> m_sync;
    std::optional<lumo::WfsLisaInput> m_input;
};

// On one core, of a frame that has just been written: the kernels, divided by the workers, and the matrix.
Figures MeasureWork(const LisaFrame& frame, const Sensor& sensor, std::size_t workers) {
    Share share{frame, Regions(sensor.size, sensor.columns)};
    const std::vector<float> matrix(2 * sensor.columns * sensor.columns * MODES, 1e-3F);
    auto raw = frame.raw;
    return Measure([&] {
        std::ranges::copy(frame.raw, raw.begin());
        const double kernels = TimeUs([&] { share.Compute(raw); });
        return kernels / static_cast<double>(workers) + TimeUs([&] { Stream(matrix); });
    });
}

void BenchLatency(const CameraSurroundings& files, const LisaFrame& frame, const Sensor& sensor,
                  std::size_t workers, bool busy, std::vector<Row>& rows) {
    // Receiver, workers and reader; those that spin need a CPU each.
    const auto cpus = SomeCpus(workers + 2);
    if (busy && cpus.size() < workers + 2) return;
    const Placement placement{cpus, workers};
    Figures ours{};
    Figures work{};
    RunOn(placement.reader, [&] {
        WfsLoop loop{files, frame, sensor, placement, busy};
        ours = Measure([&] { return loop.UsToCoefficients(); });
    });
    RunOn(placement.reader, [&] { work = MeasureWork(frame, sensor, workers); });
    const auto wake_ups = MeasureWakeUps(placement, busy, [](auto& bare) { return bare.UsToReader(); });
    const auto what = fmt::format("{}, {} {}", NameOf(sensor), workers, busy ? "spinning" : "asleep");
    AddRows(what, "bare wake-ups, kernels, matrix", ours, wake_ups + work, rows);
    rows.push_back({what + ", p50", "of these: bare wake-ups", "us", ours.p50, wake_ups.p50});
    if (sensor.budget_us > 0.0 && workers == 2 && !busy) {
        rows.push_back({what + ", p50", "its budget", "us", ours.p50, sensor.budget_us});
    }
}

// Frames a second of a pool whose workers share the ROIs.
double KernelRate(const LisaFrame& frame, const Sensor& sensor, std::size_t workers) {
    const Placement placement{SomeCpus(2), workers};
    const auto rois = Regions(sensor.size, sensor.columns);
    std::vector<Share> shares;
    shares.reserve(workers);
    common::NumaThreadPool pool{workers};
    for (std::size_t i = 0; i < workers; ++i) {
        const auto begin = rois.begin() + static_cast<std::ptrdiff_t>(rois.size() * i / workers);
        const auto end = rois.begin() + static_cast<std::ptrdiff_t>(rois.size() * (i + 1) / workers);
        shares.emplace_back(frame, std::vector<Roi>{begin, end});
        pool.ProvisionWorker("pool", 0, placement.workers[i], false, false);
        pool.ProvisionTask(i, [&frame, &share = shares[i]] { share.Compute(frame.raw); });
    }
    Figures us{};
    RunOn(placement.receiver, [&] {
        us = Measure([&pool] {
            return TimeUs([&pool] {
                pool.Run();
                pool.Wait();
            });
        });
    });
    return 1e6 / us.p50;
}

// A frame's packets, sent and received on one core.
Figures MeasurePackets() {
    constexpr std::size_t PACKET = 7680;
    BareSocket inside;
    BareSocket outside;
    std::vector<std::byte> packet(PACKET);
    std::vector<std::byte> frame(PACKET * LISA.num_frames);
    return Measure([&] {
        return TimeUs([&] {
            for (std::size_t i = 0; i < LISA.num_frames; ++i) {
                outside.SendTo(inside, packet);
                inside.Receive(std::span{frame}.subspan(i * PACKET, PACKET));
            }
        });
    });
}

Row BenchRate(const CameraSurroundings& files, const LisaFrame& frame) {
    constexpr int HALVINGS = 5;
    const auto cpus = SomeCpus(2);
    const Placement placement{cpus, 2};
    Figures cost{};
    RunOn(cpus[0], [&] { cost = MeasurePackets() + MeasureWork(frame, LARGEST, 1); });
    const double bound = static_cast<double>(cpus.size()) * 1e6 / cost.p50;
    double holds = 0.0;
    RunOn(placement.reader, [&] {
        WfsLoop loop{files, frame, LARGEST, placement, false};
        loop.UsToCoefficients();  // a first frame is dumped
        double fails = bound;
        for (int i = 0; i < HALVINGS; ++i) {
            const double rate = (holds + fails) / 2;
            (loop.Holds(rate) ? holds : fails) = rate;
        }
    });
    return {NameOf(LARGEST) + ", none late for 2 s", "two cores full of packets sent, received, kernels",
            "frames/s", holds, bound};
}

// Notes the moment of a centroid error.
class Arrivals final : public signal_processing::Resampler<CentroidError> {
public:
    bool HasSamples() override { return false; }
    std::optional<CentroidError> GetSample() override { return {}; }
    void AddSample(const CentroidError& /*sample*/) override {
        m_time = steady_clock::now();
        m_link.Signal();
    }
    steady_clock::time_point Await() {
        m_link.Await();
        return m_time;
    }

private:
    FutexLink m_link;
    steady_clock::time_point m_time;
};

void BenchAlice(const CameraSurroundings& files, std::vector<Row>& rows) {
    constexpr std::size_t SIDE = 240;
    const Placement placement{SomeCpus(3), 1};
    const auto bias = RandomFrame(1, SIDE * SIDE, 90.0F, 110.0F);
    const auto flat = RandomFrame(2, SIDE * SIDE, 0.8F, 1.2F);
    const auto keys = fmt::format("noise_removal: {{dark_path: {}, flat_path: {}}}",
                                  files.Write("alice_dark.fits", bias, {SIDE, SIDE}),
                                  files.Write("alice_flat.fits", flat, {SIDE, SIDE}));
    const std::uint16_t port = FreePort();
    CameraSender sender{ALICE, port};
    sender.socket.SetPause(PAUSE);
    CameraSurroundings::Renew();
    const auto arrivals = std::make_shared<Arrivals>();
    lumo::ResamplerManager::GetInstance().RegisterResampler(
        {typeid(CentroidError), lumo::ResamplerManager::DEFAULT_CONFIGURATION, 0}, arrivals);
    const auto node = Surroundings::NodeOf(
        CameraSurroundings::ReceiverKeys("IMG_GP1", port, placement.receiver, false) +
        fmt::format(
            ", image_processing: {{busy: false, cpu: {}, cent_box: [32, 32], refpos: [120, 120], {}}}",
            placement.workers[0], keys));
    lumo::AliceInput input{node};
    lumo::ImageProcessing processing{node};
    processing.Start().get();
    input.Start().get();
    Figures ours{};
    RunOn(placement.reader, [&] {
        ours = Measure([&] {
            sender.SendFrame();
            const auto end = arrivals->Await();
            return std::chrono::duration<double, std::micro>(end - sender.socket.LastPacketTime()).count();
        });
    });
    input.Stop();
    processing.Stop();

    image_processing::AliceNoiseRemoval removal{bias, flat};
    image_processing::CentroidingCOG<float> estimator{SIDE, SIDE, 10.0};
    const Roi roi{104, 136, 104, 136, SIDE, SIDE, 120.0, 120.0};
    const std::vector<std::uint16_t> sent(SIDE * SIDE);
    std::vector<std::uint16_t> raw(SIDE * SIDE);
    const auto work = Measure([&] {
        std::ranges::copy(sent, raw.begin());
        return TimeUs([&] {
            removal.InvalidateCache();
            removal.RemoveNoise(raw, {}, roi);
            estimator.Compute(removal.GetFrame(), roi);
        });
    });
    const auto wake_ups = MeasureWakeUps(placement, false, [](auto& bare) { return bare.UsToLastWorker(); });
    AddRows("ALICE, ROI of 32 x 32, asleep", "bare wake-ups, kernels", ours, wake_ups + work, rows);
}

}  // namespace

std::vector<Row> BenchCameras() {
    if (SomeCpus(2).size() < 2) return {};
    const LisaFrame frame{TapReadout()};
    std::vector<Row> rows;
    const CameraSurroundings files{frame};
    for (const Sensor& sensor : {Sensor{10, 8, 71.0}, Sensor{20, 8, 108.5}, Sensor{32, 8}, LARGEST}) {
        for (const std::size_t workers : {std::size_t{1}, std::size_t{2}}) {
            for (const bool busy : {false, true}) BenchLatency(files, frame, sensor, workers, busy, rows);
        }
    }
    for (const Sensor& sensor : {Sensor{32, 8}, LARGEST}) {
        rows.push_back({NameOf(sensor) + ", kernels, 2 workers", "1 worker", "frames/s",
                        KernelRate(frame, sensor, 2), KernelRate(frame, sensor, 1)});
    }
    rows.push_back(BenchRate(files, frame));
    BenchAlice(files, rows);
    return rows;
}

}  // namespace vosk::bench
