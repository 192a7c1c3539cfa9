#include <lumolib/cameraInput.hpp>

#include <vosk/common/logger.hpp>
#include <vosk/common/timeString.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <stdexcept>

namespace vosk::lumo {

using common::LogDebug;
using image_processing::Roi;
using oru::configng::Attempt;
using oru::configng::PliConfigInstanceNode;

namespace {

// Under a review any camera stands for one that can't be used.
defs::Camera CameraOf(const PliConfigInstanceNode& node) {
    defs::Camera camera{};
    const auto name = GetParam<std::string>(node, "camera_id");
    Attempt(node["camera_id"], [&] { camera = defs::CAMERAS.at(name); });
    return camera;
}

// As a character; what a terminal could take for a command is not shown.
char Printable(pktwire::lspx::Status status) {
    const auto byte = static_cast<unsigned char>(status);
    return std::isprint(byte) != 0 ? static_cast<char>(byte) : '?';
}

bool IsLogged(log4cplus::LogLevel level) {
    return common::GetLogger().isEnabledFor(level);
}

struct Box {
    std::size_t columns;
    std::size_t rows;
};

struct Point {
    double x;
    double y;
};

// One coordinate of a box: truncated, then cut to 16 bits, so that one below 0 is far beyond the frame, where
// Roi refuses it.
std::uint16_t Coordinate(double value) {
    constexpr double LIMIT = 0x1p63;
    if (!(std::abs(value) < LIMIT)) {
        common::LogAndThrow<std::invalid_argument>(
            fmt::format("Roi: a box around its reference point ends at {}", value));
    }
    return static_cast<std::uint16_t>(static_cast<std::int64_t>(value));
}

Roi RoiAround(const Point& ref, const Box& box, std::uint16_t width, std::uint16_t height) {
    const double half_x = static_cast<double>(box.columns) * 0.5;
    const double half_y = static_cast<double>(box.rows) * 0.5;
    return {Coordinate(ref.x - half_x),
            Coordinate(ref.x + half_x),
            Coordinate(ref.y - half_y),
            Coordinate(ref.y + half_y),
            width,
            height,
            ref.x,
            ref.y};
}

}  // namespace

ComputeSlopesSubtask::ComputeSlopesSubtask(std::unique_ptr<NoiseRemoval> noise_removal,
                                           std::unique_ptr<BadPixelCorrection> bad_pixel_correction,
                                           std::unique_ptr<Estimator> centroiding, std::size_t start,
                                           std::size_t stop, std::span<const Roi> rois)
    : m_start{start},
      m_stop{stop},
      m_rois{rois},
      m_slopes(rois.size()),
      m_noise_removal{std::move(noise_removal)},
      m_bad_pixel_correction{std::move(bad_pixel_correction)},
      m_centroiding{std::move(centroiding)} {
    if (start >= stop || stop > rois.size())
        common::LogAndThrow("ComputeSlopesSubtask: start/stop misconfiguration");
    m_batches.emplace(PlanBatches(rois.subspan(start, stop - start)));
}

ComputeSlopesSubtask::Batches ComputeSlopesSubtask::PlanBatches(
    std::span<const image_processing::Roi> share) const {
    return {share, m_bad_pixel_correction.get()};
}

void ComputeSlopesSubtask::ComputeSlopes(const CameraFrame& frame) {
    m_noise_removal->InvalidateCache();
    const std::unique_lock lock{*m_mutex};
    m_batches->ComputeSlopes(frame.first, frame.second, *m_noise_removal, *m_centroiding,
                             std::span{m_slopes}.subspan(m_start, m_stop - m_start));
}

void ComputeSlopesSubtask::CopySlopes(std::span<defs::Slope> slopes) const {
    const std::shared_lock lock{*m_mutex};
    const std::size_t stop = std::min(m_stop, slopes.size());
    for (std::size_t i = m_start; i < stop; ++i) slopes[i] = m_slopes[i];
}

image_processing::factory::EstimatorOptions ComputeSlopesSubtask::GetOptions() const {
    const std::shared_lock lock{*m_mutex};
    if (!m_centroiding) return {};
    return image_processing::factory::OptionsOf(*m_centroiding);
}

std::unique_ptr<ComputeSlopesSubtask::Estimator> ComputeSlopesSubtask::MakeEstimator(
    std::size_t algorithm, float threshold, std::size_t nbrightest) const {
    return image_processing::factory::MakeEstimator(algorithm, threshold, nbrightest,
                                                    m_centroiding->img_width, m_centroiding->img_height,
                                                    m_centroiding->saturation);
}

void ComputeSlopesSubtask::ReplaceEstimator(std::unique_ptr<Estimator> centroiding) {
    const std::unique_lock lock{*m_mutex};
    m_centroiding.swap(centroiding);
}

CameraInput::CameraInput(const std::string& name, const PliConfigInstanceNode& node,
                         const pktwire::UdpRxSocket::Config& udp,
                         const pktwire::qudex::Receiver::Config& qudex,
                         const pktwire::lspx::Receiver::Config& lspx, std::size_t frame_width,
                         std::size_t frame_height)
    : LspxInput{name,
                node,
                udp,
                qudex,
                lspx,
                {log4cplus::DEBUG_LOG_LEVEL,
                 name + ": ReceiveSample: ", RuntimeMonitor::GetInstance().Of(CameraOf(node)).state}},
      m_camera{CameraOf(node)},
      m_figures{RuntimeMonitor::GetInstance().Of(m_camera)},
      m_pool{node, "centroiding_pool", m_busy} {
    for (CameraFrame& frame : m_frames) frame.first.resize(frame_width * frame_height);
}

void CameraInput::Work(std::promise<void>& started) {
    // However it ends: what the tasks work on goes when the thread has been stopped.
    const struct IdleAtEnd {
        ~IdleAtEnd() { pool.Wait(); }
        const common::NumaThreadPool& pool;
    } idle_at_end{m_pool};
    m_receive_time = {};
    LspxInput::Work(started);
}

void CameraInput::OnSample(const Leader& leader, const Trailer& /*trailer*/, time_point now) {
    if (leader.GetStatus() != pktwire::lspx::Status::good) {
        m_account.RecordInvalid(m_receive_time);
        LogDebug("{}: ReceiveSample: LSPX status: {}", m_name, Printable(leader.GetStatus()));
        return;
    }
    m_receive_time = now;
    m_exposure_time = ExposureTime();
    m_sample_id = leader.SampleId();
    if (IsLogged(log4cplus::DEBUG_LOG_LEVEL)) {
        LogDebug("{}: Received frame at {}, sample_id = {}, exposure_ts = {}", m_name,
                 GetTimeString(m_receive_time), m_sample_id, GetTimeString(m_exposure_time));
    }
    if (m_pool.Wait()) {
        m_figures.statistics->RecordLate();
        LogDebug("{}: ComputeSlopes: Centroiding task has not completed on time", m_name);
    }
    if (m_frames_in_use.load() != 0) {
        LogDebug("{}: Buffer not ready, skipping frame", m_name);
    } else {
        StartFrame();
    }
    m_figures.statistics->Update(m_exposure_time, m_receive_time);
    m_account.RecordValid(m_receive_time);
}

// The time is that of the last good frame, so that the period goes on from there.
void CameraInput::OnNothing(time_point /*now*/) {
    m_account.RecordInvalid(m_receive_time);
}

// The pool is idle.
void CameraInput::StartFrame() {
    const std::uint64_t received = 1 - m_frame_index;
    m_labels[received] = {m_sample_id, m_exposure_time, m_receive_time};
    m_frame_index = received;
    m_pool.Run();
}

void CameraInput::ComputeSlopes(std::size_t subtask) noexcept {
    RunStep([&] { m_subtasks[subtask].ComputeSlopes(FrameInWork()); });
}

// The first frame is dumped in any case: it may show why.
void CameraInput::PassOver() {
    common::LogError("{}: the centroid of frame {} is not finite", m_name, LabelInWork().sample_id);
    RunStep([this] { DiagnoseFrame(); });
}

void CameraInput::LogFailure(const std::exception& error) const noexcept try {
    common::LogError("{}: {}", m_name, error.what());
} catch (const std::exception&) {
    // A line of the log is not worth the process.
}

CameraInput::Parts CameraInput::MakeParts(const PliConfigInstanceNode& node, const Sensor& sensor) {
    namespace factory = image_processing::factory;
    const auto try_at = [&](const char* key, const std::function<void()>& step) {
        Attempt(node.Has(key) ? node[key] : node, step);
    };
    Parts parts;
    try_at("centroiding_algorithm", [&] {
        parts.centroiding =
            factory::CreateCentroiding<float>(node, "centroiding_algorithm", sensor.width, sensor.height);
    });
    try_at("bad_pixel_correction", [&] {
        parts.bad_pixel_correction =
            factory::CreateBadPixelCorrection(node, "bad_pixel_correction", sensor.width, sensor.height);
    });
    try_at("noise_removal", [&] { parts.noise_removal = sensor.make_noise_removal(node, "noise_removal"); });
    return parts;
}

void CameraInput::AddSubtask(Parts parts, std::size_t start, std::size_t stop) {
    if (!parts.centroiding || !parts.noise_removal) return;
    m_subtasks.emplace_back(std::move(parts.noise_removal), std::move(parts.bad_pixel_correction),
                            std::move(parts.centroiding), start, stop, m_rois);
}

bool CameraInput::IsWhole(const Leader& leader, std::size_t pixels) const {
    if (leader.NumUnits() >= pixels || leader.GetStatus() != pktwire::lspx::Status::good) return true;
    common::LogWarn("{}: Received a frame of {} pixels where {} are needed, ignoring", m_name,
                    leader.NumUnits(), pixels);
    return false;
}

void CameraInput::RecordProcessed(const char* kind, const defs::Slope* centroid) const {
    const time_point now = atomclk::AtomClk::now();
    const auto duration = now - LabelInWork().receive_time;
    m_figures.frames->RecordProcessingTime(duration);
    if (centroid) m_figures.frames->RecordCentroid(*centroid);
    if (!IsLogged(log4cplus::DEBUG_LOG_LEVEL)) return;
    const auto text = fmt::format("{}: Processed {} frame at {}, processing time = {}", m_name, kind,
                                  GetTimeString(now), GetTimeString(duration));
    if (!centroid) return LogDebug("{}", text);
    LogDebug("{}, flux = {}, x = {}, y = {}", text, centroid->flux, centroid->x, centroid->y);
}

CameraInput::COptions CameraInput::GetCOptions() const {
    if (m_subtasks.empty()) return {};
    const auto options = m_subtasks.front().GetOptions();
    return {options.nbrightest, options.threshold, options.option};
}

// All are made before the first is put in place.
void CameraInput::SetCOptions(std::size_t algorithm, float threshold, std::size_t nbrightest) {
    std::vector<std::unique_ptr<ComputeSlopesSubtask::Estimator>> estimators;
    for (const auto& subtask : m_subtasks) {
        auto estimator = subtask.MakeEstimator(algorithm, threshold, nbrightest);
        if (!estimator) {
            common::LogAndThrow(fmt::format("{}: Undefined centroiding algorithm: {}", m_name, algorithm));
        }
        estimators.push_back(std::move(estimator));
    }
    for (std::size_t i = 0; i < estimators.size(); ++i)
        m_subtasks[i].ReplaceEstimator(std::move(estimators[i]));
}

WfsCameraInput::WfsCameraInput(const std::string& name, const PliConfigInstanceNode& node,
                               const pktwire::UdpRxSocket::Config& udp,
                               const pktwire::qudex::Receiver::Config& qudex,
                               const pktwire::lspx::Receiver::Config& lspx, std::size_t frame_width,
                               std::size_t frame_height)
    : CameraInput{name, node, udp, qudex, lspx, frame_width, frame_height} {
    LogDebug("{}: centroiding_pool size: {}", m_name, m_pool.GetSize());
    if (m_pool.GetSize() == 0) {
        Refuse(node, "centroiding_pool",
               m_name + ": No configuration for the centroiding pool, unable to compute slopes");
    }
}

ImgCameraInput::ImgCameraInput(const std::string& name, const PliConfigInstanceNode& node,
                               const pktwire::UdpRxSocket::Config& udp,
                               const pktwire::qudex::Receiver::Config& qudex,
                               const pktwire::lspx::Receiver::Config& lspx, std::size_t frame_width,
                               std::size_t frame_height)
    : CameraInput{name, node, udp, qudex, lspx, frame_width, frame_height} {
    if (m_pool.GetSize() != 0) {
        Refuse(node, "centroiding_pool",
               m_name + ": Centroiding pool is configured but not used for VIS/IMG processing");
    }
}

void ImgCameraInput::SetUp(const PliConfigInstanceNode& node, const Sensor& sensor,
                           std::span<const defs::Camera> accepted) {
    common::LogInfo("{}: Setting up VIS/IMG", m_name);
    if (std::ranges::find(accepted, m_camera) == accepted.end()) {
        Refuse(node, "camera_id",
               fmt::format("{}: Incorrect camera ID (for IMG): {}", m_name, to_string(m_camera)));
    }
    m_cent_err_resampler = GetCentroidResampler(node, m_camera);
    const Box box{node["cent_box"][0].As<std::size_t>(), node["cent_box"][1].As<std::size_t>()};
    const Point ref{node["refpos"][0].As<double>(), node["refpos"][1].As<double>()};
    Attempt(node["refpos"], [&] { m_rois = {RoiAround(ref, box, sensor.width, sensor.height)}; });
    Parts parts = MakeParts(node, sensor);
    if (!m_rois.empty()) AddSubtask(std::move(parts), 0, 1);
    m_pool.ProvisionMainThreadTask([this] { ComputeSlopes(0); });
    m_pool.ProvisionCompletionTask([this] { RunStep([this] { Complete(); }); });
    OpenSimOutput(node, m_sim_output);
}

void ImgCameraInput::Work(std::promise<void>& started) {
    Drain(*m_cent_err_resampler);
    CameraInput::Work(started);
}

void ImgCameraInput::Complete() {
    defs::CentroidError record{LabelInWork().exposure_time, LabelInWork().sample_id, {}};
    m_subtasks.front().CopySlopes(std::span{&record.slope, 1});
    if (!std::isfinite(record.slope.x) || !std::isfinite(record.slope.y)) return PassOver();
    m_cent_err_resampler->AddSample(record);
    RecordProcessed("IMG", &record.slope);
    RunStep([this] { DiagnoseFrame(); });
    if (!m_sim_output) return;
    LogDebug("{}: Sending simulation output", m_name);
    m_sim_output->TrySend(record);
}

// All is made before the frame in work is waited for. Only this operation writes the ROI, so that it can be
// looked at without the lock.
void ImgCameraInput::SetRoi(std::size_t box_x, std::size_t box_y, float ref_x, float ref_y) {
    ComputeSlopesSubtask& subtask = m_subtasks.front();
    const Roi& present = m_rois.front();
    const Roi roi = RoiAround({ref_x, ref_y}, {box_x, box_y}, present.frame_width, present.frame_height);
    auto batches = subtask.PlanBatches({&roi, 1});
    {
        const std::unique_lock lock{subtask.GetMutex()};
        m_rois.front() = roi;
        subtask.SwapBatches(batches);
    }
    common::LogTrace("{}: SetRoi: [{}, {}] - [{}, {}]", m_name, roi.x_start, roi.y_start, roi.x_stop,
                     roi.y_stop);
}

std::pair<std::uint64_t, std::uint64_t> ImgCameraInput::GetRefPos() const {
    const std::shared_lock lock{m_subtasks.front().GetMutex()};
    return {static_cast<std::uint64_t>(m_rois.front().ref_x),
            static_cast<std::uint64_t>(m_rois.front().ref_y)};
}

std::pair<std::uint64_t, std::uint64_t> ImgCameraInput::GetRoiSize() const {
    const std::shared_lock lock{m_subtasks.front().GetMutex()};
    return {m_rois.front().width, m_rois.front().height};
}

}  // namespace vosk::lumo
