#include <lumolib/fieldStabilizationInput.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <lumolib/timeGrid.hpp>
#include <vosk/common/logger.hpp>

#include <algorithm>
#include <mutex>
#include <shared_mutex>

namespace vosk::lumo {

using common::LogTrace;

namespace {

constexpr defs::sample_id_t TELEMETRY_STEP = 500;
constexpr std::size_t IMAGING_CAMERAS = 4;
constexpr int LONGEST_PART = 4;  // of an interval, that a write may take

// Reads a record that is polled: read(record) under the shared lock. Gives whether it is new.
template <class Sync, class Read>
bool Poll(Sync& sync, const Read& read) {
    const std::shared_lock lock{sync.GetMutex()};
    const bool is_new = sync.IsNewData();
    read(sync.GetDataRef(), is_new);
    sync.ClearNewData();
    return is_new;
}

}  // namespace

FieldStabilizationInput::FieldStabilizationInput(const oru::configng::PliConfigInstanceNode& node)
    : FlowgraphThread{"FSInput", node, "fs_in_telem", TELEMETRY_STEP},
      m_config{Configure(node)},
      m_pfs_sync{Exchange<PfsInputDataSync>()},
      m_m5_sync{Exchange<M5InputDataSync>()},
      m_fs_ref_sync{Exchange<FsRefDataSync>()},
      m_statistics{RuntimeMonitor::GetInstance().m_fs_statistics},
      m_stream_state{RuntimeMonitor::GetInstance().m_fs_input_state},
      m_counts{RuntimeMonitor::GetInstance().m_command_counts},
      m_simulated{m_config.centroid_sim_enabled ? std::make_unique<SimulatedCentroids>() : nullptr} {
    for (unsigned i = 0; i < m_resamplers.size(); ++i)
        m_resamplers[i] = GetCentroidResampler(node, defs::Camera{i});
    if (m_config.loopback_m5_output) m_m5_output_sync = WaitableExchange<M5OutputDataSync>(m_busy);
    if (m_config.loopback_m4_output) m_fs_output_sync = WaitableExchange<AoTasksFsDataSync>(m_busy);
    if (!m_config.centroid_sim_enabled) return;
    if (SimSourceManager::GetInstance().IsEnabled()) {
        common::LogInfo("FieldStabilizationInput: Centroid simulation is enabled.");
    } else {
        common::LogWarn(
            "FieldStabilizationInput: Centroid simulation is enabled, but no simulator is setup.");
    }
}

FieldStabilizationInput::Config FieldStabilizationInput::Configure(
    const oru::configng::PliConfigInstanceNode& node) {
    const auto interval = GetUpdateInterval(node);
    Config config{.timeout = GetNonNegativeDurationParamOr(node, "timeout", interval),
                  .update_interval = interval,
                  .update_offset = GetBoundedDurationParam(node, "update_offset"),
                  .loopback_m5_output = GetParamOr(node, "loopback_m5_output", false),
                  .loopback_m4_output = GetParamOr(node, "loopback_m4_output", false),
                  .centroid_sim_enabled = GetParamOr(node, "centroid_sim_enabled", false)};
    if (config.timeout * LONGEST_PART > config.update_interval) {
        WarnOf(node, "timeout",
               fmt::format("Thread FSInput, may wait {} us of each interval for a flowgraph that has died; a "
                           "quarter of the interval is enough for one that lives",
                           config.timeout.count()));
    }
    return config;
}

void FieldStabilizationInput::Work(std::promise<void>& started) {
    TimeGrid grid{m_config.update_interval, m_config.update_offset, atomclk::AtomClk::now()};
    m_record.sample_id = 0;
    started.set_value();
    while (IsRunning() && WaitUntil(grid.Point())) {
        RunCycle(grid.Point());
        const auto skipped = grid.Advance(atomclk::AtomClk::now());
        m_counts->grid_points_skipped.fetch_add(skipped, std::memory_order_relaxed);
    }
}

void FieldStabilizationInput::RunCycle(time_point grid_point) {
    m_record.timestamp = grid_point;
    ++m_record.sample_id;
    FsInputFlags flags{};
    ProcessCameras(flags);
    flags[static_cast<std::size_t>(FsInputSource::PFS_INPUT)] = ProcessPfsInputData();
    flags[static_cast<std::size_t>(FsInputSource::M5_INPUT)] = ProcessM5InputData();
    flags[static_cast<std::size_t>(FsInputSource::FS_REFERENCE)] = ProcessFsRefData();
    m_channel->TimedSend(&m_record, m_config.timeout);
    UpdateErrorState(flags);
    RuntimeMonitor::GetPerformanceData().UpdateFSInput(grid_point, flags);
    m_statistics->UpdateTsSent(grid_point);
    m_stream_state->RecordSentSample(grid_point);
    PublishTelemetry();
    SendDiagnostics();
}

void FieldStabilizationInput::ProcessCameras(FsInputFlags& flags) {
    if (m_config.centroid_sim_enabled && SimSourceManager::GetInstance().IsEnabled()) {
        std::fill_n(flags.begin(), m_resamplers.size(), GetSimCentroids());
        return;
    }
    for (std::size_t i = 0; i < IMAGING_CAMERAS; ++i)
        flags[i] = ProcessImgCentErrData(m_resamplers[i], m_record.img_centroid_error[i].AsSpan());
    for (std::size_t i = 0; i < m_record.wfs_tt_error.size(); ++i) {
        flags[IMAGING_CAMERAS + i] =
            ProcessWfsTtErrorData(m_resamplers[IMAGING_CAMERAS + i], m_record.wfs_tt_error[i].AsSpan());
    }
}

bool FieldStabilizationInput::ProcessCentroid(Resampler& resampler, Pair pair, const char* text) {
    if (!resampler.HasSamples()) return false;
    if (const auto sample = resampler.GetSample()) {
        pair[0] = static_cast<float>(sample->slope.x);
        pair[1] = static_cast<float>(sample->slope.y);
    } else {
        LogTrace("{}", text);
    }
    return true;
}

bool FieldStabilizationInput::ProcessImgCentErrData(const std::shared_ptr<Resampler>& resampler, Pair pair) {
    return ProcessCentroid(
        *resampler, pair,
        "FieldStabilizationInput: no valid centroid error data, keeping the last valid data");
}

bool FieldStabilizationInput::ProcessWfsTtErrorData(const std::shared_ptr<Resampler>& resampler, Pair pair) {
    return ProcessCentroid(
        *resampler, pair,
        "FieldStabilizationInput: no valid tip/tilt error data, keeping the last valid data");
}

bool FieldStabilizationInput::ProcessPfsInputData() {
    return Poll(*m_pfs_sync, [this](const PfsInputData& pfs, bool is_new) {
        if (!is_new)
            return LogTrace("FieldStabilizationInput: no valid PFS data, keeping the last valid data");
        m_record.gp_tt = pfs.gp_tt;
        m_record.zero_pair = {};
        m_record.gp_value = pfs.gp_value;
        m_record.zero_value = 0.0F;
        m_record.pointing_value = pfs.value;
    });
}

bool FieldStabilizationInput::ProcessM5InputData() {
    if (m_m5_output_sync) {
        m_record.m5 = m_m5_output_sync->GetData();
        return true;
    }
    return Poll(*m_m5_sync, [this](const defs::FloatVectorTT& m5, bool is_new) {
        if (!is_new)
            return LogTrace("FieldStabilizationInput: no valid M5 data, keeping the last valid data");
        m_record.m5 = m5;
    });
}

bool FieldStabilizationInput::ProcessFsRefData() {
    const bool is_new = Poll(*m_fs_ref_sync, [this](const defs::FsRef& ref, bool has_news) {
        if (!has_news) {
            if (!m_fs_output_sync)
                LogTrace("FieldStabilizationInput: no valid M4 data, keeping the last valid data");
            return LogTrace("FieldStabilizationInput: no valid INS data, keeping the last valid data");
        }
        m_record.m4_tt = ref.m4_tt;
        m_record.fs_ref = ref.fs_ref;
        m_record.tt_ref = ref.tt_ref;
    });
    if (m_fs_output_sync) m_record.m4_tt = m_fs_output_sync->GetData();
    return is_new;
}

bool FieldStabilizationInput::GetSimCentroids() {
    if (!m_simulated->Fetch()) {
        LogTrace("FieldStabilizationInput: Centroid simulation is enabled, but no valid data is available.");
        return false;
    }
    const auto& img = m_simulated->img;
    for (std::size_t i = 0; i < img.size(); ++i) {
        m_record.img_centroid_error[i] = {static_cast<float>(img[i].slope.x),
                                          static_cast<float>(img[i].slope.y)};
    }
    return true;
}

void FieldStabilizationInput::UpdateErrorState(const FsInputFlags& flags) {
    const auto increase = CountErrors(flags, m_errors);
    if (increase > 0) PrintErrorState(increase);
}

void FieldStabilizationInput::PrintErrorState(std::uint32_t increase) const {
    common::LogDebug(
        "FieldStabilizationInput: Error state counters increased by {}, current values:\n\tIMG Centroid "
        "Error GP1 "
        "= {}\n\tIMG Centroid Error GP2 = {}\n\tIMG Centroid Error GP3 = {}\n\tIMG Centroid Error PDS = "
        "{}\n\n\tWFS Tip/Tilt Error GP1 = {}\n\tWFS Tip/Tilt Error GP2 = {}\n\tWFS Tip/Tilt Error GP3 = "
        "{}\n\tWFS Tip/Tilt Error PDS = {}\n\n\tPFS Input = {}\n\tM5 Input = {}\n\tFS Ref = {}\n",
        increase, m_errors[0], m_errors[1], m_errors[2], m_errors[3], m_errors[4], m_errors[5], m_errors[6],
        m_errors[7], m_errors[8], m_errors[9], m_errors[10]);
}

void FieldStabilizationInput::PublishTelemetry() {
    if (IsSampled()) SendTelemetry();
}

}  // namespace vosk::lumo
