#pragma once

// A camera: a thread that sends a frame at each point of its time grid over LSPX, rendered from what the
// camera looks at, and a watch on the mailbox in which the host shows its results. Window and rate may change
// in mid-run, the camera may fall silent and come back.

#include "appendLog.hpp"
#include "cameras/cameraScene.hpp"
#include "host/ports.hpp"
#include "peers/cameraRecords.hpp"
#include "peers/faultySocket.hpp"
#include "peers/pacedSocket.hpp"
#include "peers/peer.hpp"
#include "peers/simOutWatch.hpp"

#include <pktwire/lspx.hpp>
#include <vosk/defs/wireRecords.hpp>

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace vosk::rig {

class CameraPeer final : public Peer {
public:
    // `directory` holds the files of the cameras. Throws std::runtime_error if the socket can't be made.
    CameraPeer(const Scenario& scenario, std::shared_ptr<const CameraScene> scene,
               std::filesystem::path directory, std::uint64_t seed, Ports& ports);
    ~CameraPeer() override;

    const CameraScene& Scene() const { return *m_scene; }
    std::span<const FrameRecord> Frames() const { return m_log.Entries(); }
    std::uint64_t Seed() const { return m_seed; }  // of the noise
    std::uint64_t Overruns() const {
        return m_overruns;
    }  // frames that would have been late, and were not sent
    const SimOutWatch* Watch() const { return m_watch.get(); }  // null where the host shows no results

    void AddTo(HostDocument& document) const override;
    void Start(time_point first) override;
    void TakeStep(const StepAction& action) override;
    std::string Progress() const override;
    void FallSilent() override;
    void Stop() override;
    PeerAccount Account(const RunFacts&) const override { return {}; }  // see CameraJudge

private:
    // A frame that is ready to be sent.
    struct Frame {
        CameraScene::View view{};
        PixelWindow window;
        std::vector<std::uint16_t> raw;

        std::size_t Pixels() const { return std::size_t{window.width} * window.height; }
    };
    // Senders are made for a number of pixels.
    struct Outlet {
        Outlet(std::uint32_t topic, std::size_t pixels, std::size_t packets, std::size_t info_size,
               pktwire::TxSocket& socket);
        pktwire::qudex::Sender qudex;
        pktwire::lspx::Sender lspx;
    };

    bool IsMarana() const { return m_scene->Settings().kind == CameraKind::Marana; }
    std::string Name() const { return vosk::to_string(m_scene->Settings().camera); }
    std::size_t PacketsOf(std::size_t pixels) const;
    PixelWindow WantedWindow() const;
    std::chrono::nanoseconds Period() const { return std::chrono::nanoseconds{m_period.load()}; }

    void Run();
    void Render(Frame& frame, std::uint64_t number, time_point exposed);
    const Frame& NextFrame(std::uint64_t number, time_point exposed);
    void SendFrame(const Frame& frame, std::uint64_t number, time_point exposed);
    std::error_code SendSample(const Frame& frame, const FrameRecord& record);

    const Scenario& m_scenario;
    const std::shared_ptr<const CameraScene> m_scene;
    const std::filesystem::path m_directory;
    const std::uint16_t m_port;
    const std::uint32_t m_topic;
    AppendLog<FrameRecord> m_log;
    FaultGenerator m_faults;
    pktwire::UdpTxSocket m_socket;
    PacedSocket m_paced;
    FaultySocket m_faulty;
    std::unique_ptr<SimOutWatch> m_watch;  // null where the host shows no results

    const std::uint64_t m_seed;

    // This thread only, once started.
    FrameRenderer m_renderer;
    std::vector<Spot> m_spots;
    std::vector<Frame> m_frames;  // those of the ring, or the next one
    std::unique_ptr<Outlet> m_outlet;
    std::size_t m_outlet_pixels = 0;
    time_point m_first;
    defs::sample_id_t m_next_sample_id = 1;

    std::atomic<bool> m_running{false};
    std::atomic<bool> m_silent{false};
    std::atomic<std::int64_t> m_period;  // nanoseconds
    std::atomic<std::uint64_t> m_overruns{0};
    mutable std::mutex m_mutex;
    PixelWindow m_window;  // wanted; guarded by m_mutex
    std::thread m_thread;
};

// Makes the cameras of the scenario, which look at `light`, and writes the files that the host reads of them
// below `directory`.
std::vector<std::unique_ptr<CameraPeer>> MakeCameras(const Scenario& scenario,
                                                     const std::shared_ptr<const LightSource>& light,
                                                     const std::filesystem::path& directory, Ports& ports);

}  // namespace vosk::rig
