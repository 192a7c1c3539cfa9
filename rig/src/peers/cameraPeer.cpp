#include "peers/cameraPeer.hpp"

#include "cameras/cameraFiles.hpp"
#include "host/hostProcess.hpp"
#include "peers/loopback.hpp"
#include "portableRandom.hpp"

#include <fmt/format.h>
#include <nodepin/nodepin.hpp>
#include <vosk/defs/sizes.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <utility>

namespace vosk::rig {
namespace {

constexpr std::uint32_t FIRST_TOPIC = 500;
constexpr defs::sample_id_t WRONG_ID_STEP = 1000;
constexpr std::size_t MARANA_PACKET = 4458;  // pixels, so that a whole frame has 943 packets
constexpr std::size_t LARGEST_PACKET = 9216;
// The host writes its first frame to files, which may hold it up for longer than its socket holds frames.
constexpr std::chrono::milliseconds QUIET_AFTER_FIRST{1500};
constexpr std::size_t RESULTS_KEPT = 1000;

std::size_t MostPackets(CameraKind kind) {
    return kind == CameraKind::Marana ? 943 : kind == CameraKind::Alice ? 62 : 206;
}

pktwire::lspx::Sender::Config FramesOf(std::size_t pixels, std::size_t info_size) {
    pktwire::lspx::Sender::Config config;
    config.source = pktwire::lspx::OTHER_SOURCE;
    config.endianness = pktwire::lspx::LITTLE_ENDIAN_UNITS;
    config.leader_extended_info_size = static_cast<std::uint8_t>(info_size);
    config.frame_size = static_cast<std::uint32_t>(pixels);
    return config;
}

// What the leader of this frame tells.
defs::MaranaLeaderInfo LeaderOf(const FrameRecord& record) {
    const auto is = [&](FaultKind kind) { return record.fault == kind; };
    defs::MaranaLeaderInfo info;
    info.exposure_time = record.exposed;
    info.data_type = is(FaultKind::WrongDataType) ? 256U : defs::MaranaLeaderInfo::DATA_TYPE;
    info.width = record.window.width;
    info.height = record.window.height;
    info.x_offset = is(FaultKind::WrongWindow) ? defs::MaranaLeaderInfo::DETECTOR_SIZE : record.window.x;
    info.y_offset = record.window.y;
    return info;
}

bool IsOfPackets(FaultKind kind) {
    return kind != FaultKind::Delay && kind != FaultKind::WrongSampleId && kind < FaultKind::BadStatus;
}

// As many as a run has, at the highest of its rates.
std::size_t MostFrames(const Scenario& scenario, const CameraSettings& settings) {
    double rate = settings.rate;
    for (const Step& step : scenario.steps) {
        const auto* change = std::get_if<SetCameraRate>(&step.action);
        if (change != nullptr && change->camera == settings.camera) rate = std::max(rate, change->rate);
    }
    return static_cast<std::size_t>(rate * scenario.duration.count()) + 16;
}

// Well above a period: a host that gives up a broken frame in the midst of the next one loses that, too.
std::chrono::milliseconds TimeoutFor(const CameraSettings& settings) {
    using std::chrono::milliseconds;
    return std::clamp(std::chrono::ceil<milliseconds>(4 * settings.Period()), milliseconds{50},
                      milliseconds{1000});
}

std::string TopicOf(defs::Camera camera) {
    std::string topic = "sim_" + vosk::to_string(camera);
    for (char& letter : topic) letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    return topic;
}

}  // namespace

CameraPeer::Outlet::Outlet(std::uint32_t topic, std::size_t pixels, std::size_t packets,
                           std::size_t info_size, pktwire::TxSocket& socket)
    : qudex(CheckedSamples(topic, static_cast<std::uint16_t>(packets)), socket, nullptr),
      lspx(FramesOf(pixels, info_size), qudex) {}

CameraPeer::CameraPeer(const Scenario& scenario, std::shared_ptr<const CameraScene> scene,
                       std::filesystem::path directory, std::uint64_t seed, Ports& ports)
    : m_scenario(scenario),
      m_scene(std::move(scene)),
      m_directory(std::move(directory)),
      m_port(ports.Take()),
      m_topic(FIRST_TOPIC + static_cast<std::uint32_t>(m_scene->Settings().camera)),
      m_log(MostFrames(scenario, m_scene->Settings())),
      m_faults(scenario, StreamOf(m_scene->Settings().camera)),
      m_socket(LoopbackTo(m_port), nullptr),
      m_paced(m_socket),
      m_faulty(m_paced, MostPackets(m_scene->Settings().kind), LARGEST_PACKET),
      m_seed(seed),
      m_renderer(m_scene->Sensor(), seed),
      m_frames(std::max<std::size_t>(m_scene->Settings().ring, 1)),
      m_period(m_scene->Settings().Period().count()),
      m_window(m_scene->Settings().window) {
    const CameraModel& model = m_scene->Sensor()->model;
    if (!IsMarana())
        m_window = {0, 0, static_cast<std::uint32_t>(model.Stride()),
                    static_cast<std::uint32_t>(model.height)};
    for (Frame& frame : m_frames) frame.raw.resize(model.RawSize());
    if (m_scene->Settings().kind == CameraKind::Alice) return;
    const std::size_t frames = MostFrames(scenario, m_scene->Settings());
    m_watch = std::make_unique<SimOutWatch>(
        m_scene->IsWfs() ? SimOutWatch::Record::WfsSlopes : SimOutWatch::Record::CentroidError, frames,
        m_scene->IsWfs() ? frames / RESULTS_KEPT + 1 : 1, m_scene->Regions().size());
}

CameraPeer::~CameraPeer() {
    Stop();
}

void CameraPeer::AddTo(HostDocument& document) const {
    const CameraSettings& settings = m_scene->Settings();
    const auto pair = [](const auto& values) { return fmt::format("[{}, {}]", values[0], values[1]); };
    const bool is_alice = settings.kind == CameraKind::Alice;
    std::string text = fmt::format(
        "camera_id: {}\nbusy: {}\ntimeout: \"{} ms\"\nlisten_ip: 127.0.0.1\nlisten_udp: {}\niface_name: lo\n"
        "qudex_topic: {}\n",
        Name(), m_scenario.host.busy, TimeoutFor(settings).count(), m_port, m_topic);
    std::string processing = SensorKeys(m_directory, *m_scene->Sensor());
    if (m_scene->IsWfs()) {
        processing += GridKeys(m_directory / Name()) + "centroiding_pool:\n";
        for (std::uint32_t i = 0; i < settings.workers; ++i)
            processing += fmt::format("  - {{busy: {}}}\n", m_scenario.host.busy);
    } else {
        processing += fmt::format("cent_box: {}\nrefpos: {}\n", pair(settings.box), pair(settings.reference));
    }
    if (m_watch) processing += fmt::format("sim_out: true\nshm_topic: {}\n", TopicOf(settings.camera));
    if (settings.kind == CameraKind::Lisa) text += "camera_type: lisa\n";
    if (is_alice)
        text += fmt::format("camera_type: alice\nimage_processing:\n{}",
                            Indented(fmt::format("busy: {}\n", m_scenario.host.busy) + processing));
    else
        text += processing;
    text.pop_back();  // the end of the last line
    const bool is_pds = settings.camera == defs::Camera::IMG_PDS || settings.camera == defs::Camera::WFS_PDS;
    document.Add(is_pds ? "pds" : "guide_probe", m_scene->IsWfs() ? "wfs" : "vis_img", text);
}

void CameraPeer::Start(time_point first) {
    m_first = first;
    const int priority = m_scenario.host.PeerPriority();
    if (m_watch) m_watch->Start(ShmPrefix() + TopicOf(m_scene->Settings().camera), Period() / 4, priority);
    if (m_scene->Settings().ring > 0)
        for (std::size_t i = 0; i < m_frames.size(); ++i) Render(m_frames[i], i, first);
    m_running = true;
    m_thread = nodepin::MakeThread(Name(), {{}, {}, priority}, [this] { Run(); });
}

void CameraPeer::TakeStep(const StepAction& action) {
    const defs::Camera camera = m_scene->Settings().camera;
    if (const auto* silence = std::get_if<SetCameraSilent>(&action); silence && silence->camera == camera)
        m_silent = silence->silent;
    if (const auto* rate = std::get_if<SetCameraRate>(&action); rate && rate->camera == camera)
        m_period = static_cast<std::int64_t>(1e9 / rate->rate);
    if (const auto* window = std::get_if<SetCameraWindow>(&action); window && window->camera == camera) {
        const std::lock_guard lock(m_mutex);
        m_window = window->window;
    }
}

std::string CameraPeer::Progress() const {
    const std::size_t sent = m_log.Entries().size();
    if (!m_watch) return fmt::format("{} {} sent", Name(), sent);
    return fmt::format("{} {} of {}", Name(), m_watch->Log().Entries().size(), sent);
}

void CameraPeer::FallSilent() {
    m_running = false;
    if (m_thread.joinable()) m_thread.join();
}

void CameraPeer::Stop() {
    FallSilent();
    if (m_watch) m_watch->Stop();
}

PixelWindow CameraPeer::WantedWindow() const {
    const std::lock_guard lock(m_mutex);
    return m_window;
}

std::size_t CameraPeer::PacketsOf(std::size_t pixels) const {
    if (IsMarana()) return (pixels + MARANA_PACKET - 1) / MARANA_PACKET + 2;
    return MostPackets(m_scene->Settings().kind);
}

void CameraPeer::Run() {
    const time_point end =
        m_first + std::chrono::duration_cast<std::chrono::nanoseconds>(m_scenario.duration);
    std::uint64_t number = 0;
    for (time_point exposed = m_first; exposed < end && m_running; exposed += Period(), ++number) {
        // What the mirrors do to the light is known at its time, not before.
        const Frame* frame = m_scenario.telescope ? nullptr : &NextFrame(number, exposed);
        SleepUntil(exposed);
        if (m_silent || (number > 0 && exposed - m_first < QUIET_AFTER_FIRST)) continue;
        if (AtomClk::now() - exposed > Period() / 2) {
            ++m_overruns;
            continue;
        }
        if (frame == nullptr) frame = &NextFrame(number, exposed);
        SendFrame(*frame, number, exposed);
    }
}

const CameraPeer::Frame& CameraPeer::NextFrame(std::uint64_t number, time_point exposed) {
    if (m_scene->Settings().ring > 0) return m_frames[number % m_frames.size()];
    Render(m_frames[0], number, exposed);
    return m_frames[0];
}

void CameraPeer::Render(Frame& frame, std::uint64_t number, time_point exposed) {
    frame.window = WantedWindow();
    frame.view = m_scene->ViewOf(number, exposed - m_first);
    m_scene->SpotsAt(frame.view.light, m_spots);
    if (!IsMarana()) return m_renderer.Render(frame.view.noise, m_spots, frame.raw);
    const PixelWindow& window = frame.window;
    m_renderer.Render(frame.view.noise, m_spots, {window.x, window.y, window.width, window.height},
                      frame.raw);
}

void CameraPeer::SendFrame(const Frame& frame, std::uint64_t number, time_point exposed) {
    FrameRecord* const record = m_log.Append();
    if (record == nullptr) return;
    const std::optional<Fault> fault = m_faults.Next(exposed - m_first);
    *record = {number, frame.view, frame.window,       exposed,
               {},     {},         m_next_sample_id++, fault ? std::optional(fault->kind) : std::nullopt};
    if (fault && fault->kind == FaultKind::WrongSampleId) record->sample_id += WRONG_ID_STEP;
    if (fault && fault->kind == FaultKind::Delay) SleepUntil(exposed + fault->delay);
    if (fault && IsOfPackets(fault->kind)) m_faulty.Arm(*fault);
    record->begun = AtomClk::now();
    // The host may not be there any more. Results that don't come tell of it.
    static_cast<void>(SendSample(frame, *record));
    static_cast<void>(m_faulty.Release());
    record->sent = AtomClk::now();
    m_log.Publish(m_log.WrittenCount());
}

std::error_code CameraPeer::SendSample(const Frame& frame, const FrameRecord& record) {
    const std::size_t pixels = frame.Pixels();
    const std::size_t info_size =
        IsMarana() ? sizeof(defs::MaranaLeaderInfo) : sizeof(defs::TransportTimepoint);
    if (!m_outlet || m_outlet_pixels != pixels) {
        m_outlet = std::make_unique<Outlet>(m_topic, pixels, PacketsOf(pixels), info_size, m_faulty);
        m_outlet_pixels = pixels;
    }
    const auto status =
        record.fault == FaultKind::BadStatus ? std::optional(pktwire::lspx::Status{1}) : std::nullopt;
    m_paced.Begin(record.begun, m_scene->Settings().transfer, PacketsOf(pixels));
    m_outlet->qudex.SetSampleId(record.sample_id);
    // The exposure time stands first in the leader of every camera.
    const defs::MaranaLeaderInfo info = LeaderOf(record);
    return m_outlet->lspx.SendSample(BytesOf(info).first(info_size),
                                     gsl::as_bytes(gsl::span(frame.raw).first(pixels)), {}, record.exposed,
                                     {}, status);
}

std::vector<std::unique_ptr<CameraPeer>> MakeCameras(const Scenario& scenario,
                                                     const std::shared_ptr<const LightSource>& light,
                                                     const std::filesystem::path& directory, Ports& ports) {
    std::vector<std::unique_ptr<CameraPeer>> peers;
    if (scenario.cameras.empty()) return peers;
    constexpr std::array<const char*, 4> MODELS{"lisa", "lisa", "marana", "alice"};
    std::map<std::string, std::shared_ptr<const CameraSensor>> sensors;
    for (const CameraSettings& settings : scenario.cameras) {
        auto& sensor = sensors[MODELS[static_cast<std::size_t>(settings.kind)]];
        if (!sensor) {
            sensor = std::make_shared<const CameraSensor>(
                MakeSensor(ModelNamed(MODELS[static_cast<std::size_t>(settings.kind)]), scenario.seed));
            WriteSensorFiles(directory, *sensor);
        }
        auto scene = std::make_shared<const CameraScene>(settings, sensor, light, scenario.seed);
        if (scene->IsWfs()) WriteGridFiles(directory / vosk::to_string(settings.camera), scene->Grid());
        const std::uint64_t seed = Scatter(scenario.seed) + 100 + static_cast<std::uint64_t>(settings.camera);
        peers.push_back(std::make_unique<CameraPeer>(scenario, std::move(scene), directory, seed, ports));
    }
    return peers;
}

}  // namespace vosk::rig
