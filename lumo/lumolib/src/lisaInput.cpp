#include <lumolib/lisaInput.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <lumolib/frameDump.hpp>
#include <lumolib/wfsConfiguration.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/math/blas.hpp>
#include <vosk/common/math/finite.hpp>
#include <vosk/image_processing/noiseRemovalFactory.hpp>
#include <vosk/image_processing/scrambling.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>

namespace vosk::lumo {

using common::LogDebug;
using common::LogError;
using defs::Camera;
using image_processing::LisaGeometry;
using oru::configng::PliConfigInstanceNode;

namespace {

constexpr std::size_t RAW_PIXELS = LisaGeometry::SCRAMBLED_WIDTH * LisaGeometry::SCRAMBLED_HEIGHT;
constexpr std::array WFS_CAMERAS{Camera::WFS_GP1, Camera::WFS_GP2, Camera::WFS_GP3, Camera::WFS_PDS};
constexpr std::array IMG_CAMERAS{Camera::IMG_GP1, Camera::IMG_GP2, Camera::IMG_GP3, Camera::IMG_PDS};

pktwire::UdpRxSocket::Config UdpDefaults() {
    pktwire::UdpRxSocket::Config config{};
    config.rxbuf_size = 3 * RAW_PIXELS * sizeof(std::uint16_t);
    return config;
}

pktwire::qudex::Receiver::Config QudexDefaults() {
    pktwire::qudex::Receiver::Config config{};
    config.num_frames = 206;
    return config;
}

pktwire::lspx::Receiver::Config LspxDefaults() {
    pktwire::lspx::Receiver::Config config{};
    config.endianness = pktwire::lspx::LITTLE_ENDIAN_UNITS;
    config.leader_extended_info_size = sizeof(defs::TransportTimepoint);
    config.data_unit_size = sizeof(std::uint16_t);
    config.buf_samples = 2;
    return config;
}

}  // namespace

template <class Base>
const typename Base::Sensor LisaInput<Base>::SENSOR{
    LisaGeometry::WIDTH, LisaGeometry::HEIGHT,
    [](const PliConfigInstanceNode& node,
       const std::string& key) -> std::unique_ptr<ComputeSlopesSubtask::NoiseRemoval> {
        return image_processing::factory::CreateLisaNoiseRemoval(node, key);
    }};

template <class Base>
LisaInput<Base>::LisaInput(const char* prefix, const PliConfigInstanceNode& node)
    : Base{prefix + GetParam<std::string>(node, "camera_id"),
           node,
           UdpDefaults(),
           QudexDefaults(),
           LspxDefaults(),
           LisaGeometry::SCRAMBLED_WIDTH,
           LisaGeometry::SCRAMBLED_HEIGHT} {
    this->RequireForm(node, sizeof(std::uint16_t), sizeof(m_exposure_stamp));
}

template <class Base>
typename Base::Received LisaInput<Base>::Receive() {
    auto received = this->m_lspx_receiver->ReceiveSample(
        gsl::as_writable_bytes(gsl::span{&m_exposure_stamp, 1}),
        gsl::as_writable_bytes(gsl::span{this->IdleFrame().first}), {}, this->m_timeout);
    const auto& leader = received.second.leader;
    if (!received.first && leader && !this->IsWhole(*leader, RAW_PIXELS))
        return {std::make_error_code(std::errc::invalid_argument), typename Base::Received::second_type{}};
    return received;
}

template <class Base>
void LisaInput<Base>::DiagnoseFrame() {
    static std::atomic_flag is_done;
    if (is_done.test_and_set()) return;
    DumpFrameToFits(this->FrameInWork().first, this->m_camera, this->LabelInWork().sample_id);
}

template class LisaInput<WfsCameraInput>;
template class LisaInput<ImgCameraInput>;

WfsLisaInput::WfsLisaInput(const PliConfigInstanceNode& node) : LisaInput{"WfsLisa_", node} {
    common::LogInfo("{}: Setting up WFS/SHAO", m_name);
    RequireCamera(node);
    m_cent_err_resampler = GetCentroidResampler(node, m_camera);
    ReadConfiguration(node);
    OpenSimOutput(node, m_sim_output);
    if (GetParamOr(node, "centroid_sim_enabled", false) && !SimSourceManager::GetInstance().IsEnabled()) {
        WarnOf(node, "centroid_sim_enabled",
               "WfsLisaInput: Centroid simulation is enabled, but no simulator is setup.");
    }
    m_gpao_coefficients_sync = WaitableExchange<GpaoCoefficientsDataSync>(m_busy);
}

void WfsLisaInput::RequireCamera(const PliConfigInstanceNode& node) const {
    if (std::ranges::find(WFS_CAMERAS, m_camera) != WFS_CAMERAS.end()) return;
    Refuse(node, "camera_id",
           fmt::format("{}: Incorrect camera ID (for WFS): {}", m_name, to_string(m_camera)));
}

void WfsLisaInput::ReadConfiguration(const PliConfigInstanceNode& node) {
    auto configuration = ReadWfsConfiguration(node);
    if (configuration) {
        m_rois = std::move(configuration->rois);
        m_control_matrix = std::move(configuration->control_matrix);
        LogDebug("{}: Active sub-appertures: {}", m_name, m_rois.size());
        oru::configng::Attempt(node["rois_path"],
                               [this] { m_gpao_coefficients.slopes.resize(m_rois.size()); });
    }
    m_modes2tt = GetVectorParam<float>(node, "modes2tt_matrix");
    constexpr std::size_t VALUES = defs::TIP_TILT_SIZE * defs::TIP_TILT_SIZE;
    if (m_modes2tt.size() != VALUES) {
        Refuse(node, "modes2tt_matrix",
               fmt::format("{}: Unexpected size of modes2tt_matrix, expected: {}, got: {}", m_name, VALUES,
                           m_modes2tt.size()));
    }
    if (!std::ranges::all_of(m_modes2tt, [](float value) { return std::isfinite(value); }))
        Refuse(node, "modes2tt_matrix", m_name + ": modes2tt_matrix holds a value that is not finite");
    if (configuration && m_pool.GetSize() != 0) {
        BalancePool(node);
    } else {  // under a review
        MakeParts(node, SENSOR);
    }
    m_pool.ProvisionCompletionTask([this] { RunStep([this] { Complete(); }); });
}

void WfsLisaInput::BalancePool(const PliConfigInstanceNode& node) {
    const std::size_t workers = m_pool.GetSize();
    const std::size_t count = m_rois.size();
    const std::size_t section = (count + workers) / workers;
    LogDebug("{}: Balancing centroiding task pool, ROI section size {}", m_name, section);
    for (std::size_t worker = 0; worker < workers; ++worker) {
        const std::size_t start = worker * section;
        const std::size_t stop = std::min(start + section, count);
        LogDebug("{}: Constructing centroiding task {}..{} / {}", m_name, start, stop, count);
        m_pool.RunOnNodeOf(worker, [&] {
            Parts parts = MakeParts(node, SENSOR);
            oru::configng::Attempt(node["centroiding_pool"],
                                   [&] { AddSubtask(std::move(parts), start, stop); });
        });
        m_pool.ProvisionTask(worker, [this, worker] { ComputeSlopes(worker); });
    }
}

void WfsLisaInput::Work(std::promise<void>& started) {
    Drain(*m_cent_err_resampler);
    LisaInput::Work(started);
}

void WfsLisaInput::Complete() {
    RunStep([this] { CollectSlopes(); });
    ProjectToModalBase();
    const auto [tip, tilt] = ExtractTipTiltError();
    if (!common::math::AllFinite(m_gpao_coefficients.modes) || !std::isfinite(tip) || !std::isfinite(tilt))
        return PassOver();
    const FrameLabel& label = LabelInWork();
    m_cent_err_resampler->AddSample({label.exposure_time, label.sample_id, {0.0, tip, tilt}});
    m_gpao_coefficients_sync->SetData(m_gpao_coefficients, m_camera, label.sample_id, label.exposure_time);
    RecordProcessed("WFS", nullptr);
    RunStep([this] { DiagnoseFrame(); });
    if (m_sim_output) SendSimOutput();
}

void WfsLisaInput::CollectSlopes() {
    const std::span slopes{m_gpao_coefficients.slopes.data(), m_gpao_coefficients.slopes.size()};
    if (SimSourceManager::GetInstance().IsEnabled()) return GetSimCentroidsForCamera(slopes);
    for (const auto& subtask : m_subtasks) subtask.CopySlopes(slopes);
}

void WfsLisaInput::GetSimCentroidsForCamera(std::span<defs::Slope> slopes) {
    m_simulated->img.fill({});
    for (auto& topic : m_simulated->wfs) topic.slopes.assign(slopes.size(), {});
    if (!m_simulated->Fetch()) return;
    const auto* const found = std::ranges::find(WFS_CAMERAS, m_camera);
    if (found == WFS_CAMERAS.end()) {
        return LogError("{}: GetSimCentroidsForCamera(): Invalid camera ID for WFS: {}", m_name,
                        to_string(m_camera));
    }
    const auto& simulated = m_simulated->wfs[static_cast<std::size_t>(found - WFS_CAMERAS.begin())].slopes;
    if (simulated.size() != slopes.size())
        return LogError("{}: Unsolicited change of active subapertures not supported", m_name);
    std::ranges::copy(simulated, slopes.begin());
}

void WfsLisaInput::ProjectToModalBase() {
    std::array<float, 2 * defs::MAX_SLOPES> components{};
    auto* next = components.data();
    for (const defs::Slope& slope : m_gpao_coefficients.slopes) {
        *next++ = static_cast<float>(slope.x);
        *next++ = static_cast<float>(slope.y);
    }
    common::math::cblas_MultiplyMatrixByVector(
        CblasTrans, 1.0F, m_control_matrix,
        std::span{components}.first(2 * m_gpao_coefficients.slopes.size()), 0.0F, m_gpao_coefficients.modes);
}

defs::FloatVectorTT WfsLisaInput::ExtractTipTiltError() const {
    defs::FloatVectorTT error;
    common::math::cblas_MultiplyMatrixByVector(
        CblasNoTrans, 1.0F, m_modes2tt, std::span{m_gpao_coefficients.modes}.first<defs::TIP_TILT_SIZE>(),
        0.0F, error.AsSpan());
    return error;
}

void WfsLisaInput::SendSimOutput() {
    LogDebug("{}: Sending simulation output", m_name);
    const FrameLabel& label = LabelInWork();
    m_sim_output->TrySend({label.exposure_time, label.sample_id, m_gpao_coefficients.slopes});
}

ImgLisaInput::ImgLisaInput(const PliConfigInstanceNode& node) : LisaInput{"ImgLisa_", node} {
    SetUp(node, SENSOR, IMG_CAMERAS);
}

}  // namespace vosk::lumo
