#include <fmt/format.h>
#include <spdlog/spdlog.h>
#include <vosk/ao_tasks/m4SaturationManagement.hpp>
#include <vosk/common/assert.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/math/blas.hpp>
#include <vosk/common/math/finite.hpp>
#include <vosk/common/timeString.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>
#include <string>

namespace vosk::ao_tasks {

namespace {

using atomclk::AtomClk;
using common::math::AllFinite;
using common::math::cblas_AddVectors;
using lumo::GetTimeString;

constexpr std::size_t M4_CMD_SIZE = M4SaturationManagement::M4_CMD_SIZE;

// The largest absolute value; 0 if there is none. NaN is passed over: one actuator of unknown position must
// not lift the limits of the others. In lanes, each with its own largest, for the compiler to vectorise: in
// one chain of comparisons it takes as long as the projection of a small matrix.
float LargestMagnitude(std::span<const float> values) {
    constexpr std::size_t LANES = 32;
    const auto larger = [](float a, float b) { return b > a ? b : a; };
    std::array<float, LANES> largest{};
    for (; values.size() >= LANES; values = values.subspan(LANES)) {
        std::array<float, LANES> magnitudes;
        for (std::size_t lane = 0; lane < LANES; ++lane) magnitudes[lane] = std::abs(values[lane]);
        for (std::size_t lane = 0; lane < LANES; ++lane) {
            largest[lane] = larger(largest[lane], magnitudes[lane]);
        }
    }
    float result = 0.0F;
    for (const float magnitude : largest) result = larger(result, magnitude);
    for (const float value : values) result = larger(result, std::abs(value));
    return result;
}

// 1 also where the ratio is not a number.
float AtMostOne(float ratio) {
    return ratio < 1.0F ? ratio : 1.0F;
}

[[noreturn]] void Refuse(const std::string& what) {
    throw std::runtime_error{"M4SaturationManagement: ERROR: " + what};
}

const M4SaturationManagement::Config& Checked(const M4SaturationManagement::Config& config) {
    const std::size_t elements = M4_CMD_SIZE * config.managed_modes;
    if (config.m2p.size() != elements) {
        Refuse(fmt::format("Wrong size of the M2P projection matrix, size = {}, but should be {} x {} = {}",
                           config.m2p.size(), M4_CMD_SIZE, config.managed_modes, elements));
    }
    M4SaturationManagement::VetThresholdVelocity(config.threshold_velocity);
    M4SaturationManagement::VetThresholdGap(config.threshold_gap);
    M4SaturationManagement::VetManagedModes(config.managed_modes);
    M4SaturationManagement::VetM2p(config.m2p);
    return config;
}

}  // namespace

void M4SaturationManagement::VetManagedModes(std::uint32_t managed_modes) {
    if (managed_modes <= M4_CMD_SIZE) return;
    Refuse(fmt::format("Wrong 'managed_modes', must be at most {}, but is {}.", M4_CMD_SIZE, managed_modes));
}

void M4SaturationManagement::VetM2p(std::span<const float> m2p) {
    if (!AllFinite(m2p)) Refuse("The M2P projection matrix holds a value that is not finite.");
}

// Both written so that NaN is refused.
void M4SaturationManagement::VetThresholdVelocity(float threshold_velocity) {
    if (!(threshold_velocity >= 0.0F)) Refuse("Wrong 'delta_threshold', must be a positive value.");
}

void M4SaturationManagement::VetThresholdGap(float threshold_gap) {
    if (!(threshold_gap >= 0.0F)) Refuse("Wrong 'gap_threshold', must be a positive value.");
}

M4SaturationManagement::M4SaturationManagement(const Config& config)
    : m_delta_scaling{Checked(config).delta},
      m_managed_modes{config.managed_modes},
      m_m2p{config.m2p, M4_CMD_SIZE, config.managed_modes},
      m_threshold_velocity{config.threshold_velocity},
      m_threshold_gap{config.threshold_gap} {
    spdlog::trace(
        "M4SaturationManagement block: delta = {}, managed_modes = {}, m2p = [{}, {}], threshold_velocity = "
        "{}, "
        "threshold_gap = {}",
        m_delta_scaling, m_managed_modes, M4_CMD_SIZE, m_managed_modes, m_threshold_velocity,
        m_threshold_gap);
}

void M4SaturationManagement::Work(std::span<const float, M4_CMD_SIZE> in_wavefront_command,
                                  std::span<const float, M4_CMD_SIZE> in_last_applied,
                                  std::span<float, M4_CMD_SIZE> out_setpoint) {
    VOSK_ASSERT(in_wavefront_command.size() == M4_CMD_SIZE);
    m_time_stats.Clear();
    m_time_stats.start = AtomClk::now();
    std::copy(in_wavefront_command.begin(), in_wavefront_command.end(), out_setpoint.begin());
    std::copy(in_wavefront_command.begin(), in_wavefront_command.end(), m_delta.begin());
    cblas_AddVectors(-1.0F, in_last_applied, m_delta);
    m_m2p.Multiply(std::span{m_delta}.first(m_managed_modes), in_last_applied.first(m_managed_modes),
                   m_delta_act_pos, m_act_pos);
    m_is_projection_finite = AllFinite(m_delta_act_pos) && AllFinite(m_act_pos);
    m_time_stats.projected = AtomClk::now();
    if (m_delta_scaling) {
        ScalingOfDeltaCommand(in_wavefront_command, in_last_applied, out_setpoint);
    } else {
        ScalingOfAbsoluteCommand(in_wavefront_command, out_setpoint);
    }
}

void M4SaturationManagement::ScalingOfDeltaCommand(const std::span<const float>& command,
                                                   const std::span<const float>& last_applied,
                                                   const std::span<float>& setpoint) {
    const float position = LargestMagnitude(m_act_pos);
    const float change = LargestMagnitude(m_delta_act_pos);
    const float scale_vel = AtMostOne(m_threshold_velocity / change);
    m_time_stats.delta_scale_vel = AtomClk::now();

    cblas_AddVectors(scale_vel, m_delta_act_pos, m_act_pos);
    m_time_stats.delta_pos1 = AtomClk::now();

    const float scale_gap = ScaleOfGap(position, change, scale_vel);
    m_time_stats.delta_scale_gap = AtomClk::now();

    const auto managed = setpoint.first(m_managed_modes);
    std::copy(command.begin() + m_managed_modes, command.end(), setpoint.begin() + m_managed_modes);
    std::copy_n(last_applied.begin(), m_managed_modes, managed.begin());
    cblas_AddVectors(scale_gap * scale_vel, std::span{m_delta}.first(m_managed_modes), managed);
    m_time_stats.end = AtomClk::now();
}

// The factor on the velocity-limited step: 1 where that step stays within the gap. From within the gap, a
// step across it is cut so that it ends there. From beyond it, the step goes as it is if it leads inward; if
// not, the factor is negative and turns it round, if that leads inward; else M4 stays. Position and change
// belong to different actuators, so only the resulting position shows which way a step leads.
float M4SaturationManagement::ScaleOfGap(float position, float change, float scale_vel) {
    const float stepped = LargestMagnitude(m_act_pos);
    m_is_projection_finite = m_is_projection_finite && std::isfinite(stepped);
    if (!(stepped > m_threshold_gap)) return 1.0F;
    const bool is_beyond = position > m_threshold_gap;
    if (is_beyond && stepped < position) return 1.0F;
    const float factor = (m_threshold_gap - position) / (change * scale_vel);
    if (!std::isfinite(factor)) return 0.0F;
    if (!is_beyond) return factor;
    cblas_AddVectors((factor - 1.0F) * scale_vel, m_delta_act_pos, m_act_pos);
    return LargestMagnitude(m_act_pos) < position ? factor : 0.0F;
}

void M4SaturationManagement::ScalingOfAbsoluteCommand(const std::span<const float>& command,
                                                      const std::span<float>& setpoint) {
    m_new_act_pos = m_act_pos;
    cblas_AddVectors(1.0F, m_delta_act_pos, m_new_act_pos);
    const float commanded = LargestMagnitude(m_new_act_pos);
    m_is_projection_finite = m_is_projection_finite && std::isfinite(commanded);
    const float scale_gap = m_threshold_gap / commanded;
    m_time_stats.abs_scale_gap = AtomClk::now();

    const float change = LargestMagnitude(m_delta_act_pos);
    const float scale_vel_temp = change == 0.0F ? 1.0F : AtMostOne(m_threshold_velocity / change);
    m_time_stats.abs_scale_vel_temp = AtomClk::now();

    // The size of the velocity-limited position relative to the commanded one.
    float scale_vel = 1.0F;
    if (commanded != 0.0F) {
        cblas_AddVectors(scale_vel_temp, m_delta_act_pos, m_act_pos);
        scale_vel = LargestMagnitude(m_act_pos) / commanded;
    }
    m_time_stats.abs_scale_vel = AtomClk::now();

    float scale = AtMostOne(scale_gap);
    if (scale_vel < scale) scale = scale_vel;
    std::copy(command.begin(), command.end(), setpoint.begin());
    common::math::ScaleVector(scale, setpoint.first(m_managed_modes));
    m_time_stats.end = AtomClk::now();
}

void M4SaturationManagement::PrintTimeStats() const {
    if (!common::GetLogger().isEnabledFor(log4cplus::DEBUG_LOG_LEVEL)) return;
    const TimeStats& at = m_time_stats;
    if (m_delta_scaling) {
        common::LogDebug(
            "M4 Saturation Management timings (steps duration) [delta cmd]:\n\tdelta_act_pos = {}, scale_vel "
            "= {}, "
            "pos1 = {}, scale_gap = {}, am_setpoint = {}",
            GetTimeString(at.projected - at.start), GetTimeString(at.delta_scale_vel - at.projected),
            GetTimeString(at.delta_pos1 - at.delta_scale_vel),
            GetTimeString(at.delta_scale_gap - at.delta_pos1), GetTimeString(at.end - at.delta_scale_gap));
    } else {
        common::LogDebug(
            "M4 Saturation Management timings (steps duration) [absolute cmd]:\n\tdelta_act_pos = {}, "
            "scale_gap = {}, scale_vel_temp = {}, scale_vel = {}, am_setpoint = {}",
            GetTimeString(at.projected - at.start), GetTimeString(at.abs_scale_gap - at.projected),
            GetTimeString(at.abs_scale_vel_temp - at.abs_scale_gap),
            GetTimeString(at.abs_scale_vel - at.abs_scale_vel_temp),
            GetTimeString(at.end - at.abs_scale_vel));
    }
}

}  // namespace vosk::ao_tasks
