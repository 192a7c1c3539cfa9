#include <lumolib/performanceData.hpp>

#include <stdexcept>

namespace vosk::lumo {

namespace {

defs::FloatVectorTT ToVector(PerformanceData::TipTilt value) {
    return {value[0], value[1]};
}

}  // namespace

void PerformanceData::SetGpCmd(pfs::GPID gp, const time_point& time, TipTilt value, bool valid) {
    const auto index = static_cast<std::size_t>(gp);
    if (index >= m_commands.gp_cmd.size()) throw std::runtime_error("Invalid GP_ID");
    const std::lock_guard lock(m_mutex);
    m_commands.gp_cmd_time[index] = time;
    m_commands.gp_cmd[index] = ToVector(value);
    m_commands.gp_cmd_valid = valid;
}

void PerformanceData::SetGpCmdValid(bool valid) {
    const std::lock_guard lock(m_mutex);
    m_commands.gp_cmd_valid = valid;
}

void PerformanceData::SetMsFsTt(const time_point& time, TipTilt value) {
    const std::lock_guard lock(m_mutex);
    m_commands.ms_fs_tt_time = time;
    m_commands.ms_fs_tt = ToVector(value);
}

void PerformanceData::SetU4FsTt(const time_point& time, TipTilt value) {
    const std::lock_guard lock(m_mutex);
    m_commands.u4_fs_tt_time = time;
    m_commands.u4_fs_tt = ToVector(value);
}

void PerformanceData::SetU5FsTt(const time_point& time, TipTilt sky, TipTilt m5) {
    const std::lock_guard lock(m_mutex);
    m_commands.u5_fs_tt_time = time;
    m_commands.u5_fs_tt = ToVector(sky);
    m_commands.u5_m5_tt = ToVector(m5);
}

void PerformanceData::UpdateFSInput(const time_point& time, const FsInputFlags& flags) {
    const std::lock_guard lock(m_mutex);
    ++m_fs.fs_input_cycles;
    m_fs.fs_time = time;
    m_fs.fs_output_done = false;
    for (std::size_t i = 0; i < flags.size(); ++i) m_fs.fs_input_counts[i] += flags[i] ? 1 : 0;
}

void PerformanceData::UpdateFSOutput(const time_point& /*time*/, bool got_record) {
    const std::lock_guard lock(m_mutex);
    ++m_fs.fs_output_cycles;
    m_fs.fs_output_count += got_record ? 1 : 0;
    m_fs.fs_output_done = true;
}

void PerformanceData::SetCentroidError(float x, float y) {
    const std::lock_guard lock(m_mutex);
    ResetWavefrontTelemetryData();
    m_wavefront.wavefront_time = atomclk::AtomClk::now();
    m_wavefront.wavefront_valid = true;
    m_wavefront.centroid_error = {x, y};
}

void PerformanceData::SetTipTiltError(float tip, float tilt) {
    const std::lock_guard lock(m_mutex);
    m_wavefront.wavefront_time = atomclk::AtomClk::now();
    m_wavefront.wavefront_valid = true;
    m_wavefront.tip_tilt_error = {tip, tilt};
}

void PerformanceData::ResetFSTelemetryData() {
    m_fs = {.fs_time = m_fs.fs_time, .fs_output_done = m_fs.fs_output_done};
}

void PerformanceData::ResetWavefrontTelemetryData() {
    m_wavefront = {};
}

void PerformanceData::Reset() {
    static constexpr std::array<float, 2> ZERO{};
    for (std::size_t gp = 0; gp < m_commands.gp_cmd.size(); ++gp) {
        SetGpCmd(static_cast<pfs::GPID>(gp), time_point{}, ZERO, false);
    }
    SetMsFsTt(time_point{}, ZERO);
    SetU4FsTt(time_point{}, ZERO);
    SetU5FsTt(time_point{}, ZERO, ZERO);
    const std::lock_guard lock(m_mutex);
    ResetFSTelemetryData();
    ResetWavefrontTelemetryData();
}

PerformanceTopic PerformanceData::GetDataTopic() const {
    const std::lock_guard lock(m_mutex);
    return m_commands;
}

WavefrontMetricData PerformanceData::GetWavefrontMetricData() const {
    const std::lock_guard lock(m_mutex);
    return m_wavefront;
}

FSTelemetryData PerformanceData::GetFSTelemetryData() const {
    const std::lock_guard lock(m_mutex);
    return m_fs;
}

}  // namespace vosk::lumo
