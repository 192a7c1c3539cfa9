#pragma once

// Limits an M4 command before it is sent. The command lives in a modal space, the limits apply to actuators:
// the block projects the last applied command and the change since then with the M2P matrix, derives one
// scale factor from a limit on the step and a limit on the position, and applies it to the managed modes. The
// modes behind them pass untouched. Owned by Executor and used on its thread.

#include <atomclk/atomClk.hpp>
#include <vosk/common/math/panelMatrix.hpp>
#include <vosk/defs/sizes.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vosk::ao_tasks {

// Buffers begin on cache lines: NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
class M4SaturationManagement {
public:
    static constexpr std::size_t M4_CMD_SIZE = defs::M4_CMD_SIZE;

    struct Config {
        bool delta = false;               // scale the change of the command (true) or the whole command
        std::uint32_t managed_modes = 0;  // leading elements under management, at most M4_CMD_SIZE
        std::vector<float> m2p;           // row-major, M4_CMD_SIZE rows by managed_modes columns, finite
        float threshold_velocity =
            0.0F;                    // largest change of an actuator a cycle; not negative, inf: no limit
        float threshold_gap = 0.0F;  // largest absolute position of an actuator; the same
    };

    // Each throws std::runtime_error on a value that breaks the limits named above.
    static void VetManagedModes(std::uint32_t managed_modes);
    static void VetM2p(std::span<const float> m2p);
    static void VetThresholdVelocity(float threshold_velocity);
    static void VetThresholdGap(float threshold_gap);

    // Copies the matrix. Throws std::runtime_error on a bad value or a matrix of another size.
    explicit M4SaturationManagement(const Config& config);

    // out_setpoint is in_wavefront_command with its managed modes limited. in_last_applied is what M4 last
    // reported as applied, in the same terms (reference shape included), or zeroes. Allocates nothing. The
    // scale factor is finite whatever comes in. Where M4 echoes the setpoints, no actuator gets further out
    // than the gap, or than the outermost one was.
    void Work(std::span<const float, M4_CMD_SIZE> in_wavefront_command,
              std::span<const float, M4_CMD_SIZE> in_last_applied,
              std::span<float, M4_CMD_SIZE> out_setpoint);

    // Whether the last Work found finite actuator positions. Where it did not, the setpoint is not limited.
    bool IsProjectionFinite() const noexcept { return m_is_projection_finite; }

    // Logs at DEBUG how long the steps of the last Work took, if the worker threads' logger takes DEBUG.
    void PrintTimeStats() const;

private:
    using TimePoint = atomclk::AtomClk::time_point;

    struct TimeStats {
        TimePoint start;               // entry of Work
        TimePoint projected;           // after both projections
        TimePoint abs_scale_gap;       // absolute variant
        TimePoint abs_scale_vel_temp;  // absolute variant
        TimePoint abs_scale_vel;       // absolute variant
        TimePoint delta_scale_vel;     // delta variant
        TimePoint delta_pos1;          // delta variant
        TimePoint delta_scale_gap;     // delta variant
        TimePoint end;                 // after the setpoint was written

        void Clear() { *this = {}; }
    };

    using ActuatorVector = std::array<float, M4_CMD_SIZE>;

    // Both rely on what Work has just computed.
    void ScalingOfDeltaCommand(const std::span<const float>& command,
                               const std::span<const float>& last_applied, const std::span<float>& setpoint);
    void ScalingOfAbsoluteCommand(const std::span<const float>& command, const std::span<float>& setpoint);

    // `position` and `change`: the largest magnitudes of both; m_act_pos holds the velocity-limited position.
    float ScaleOfGap(float position, float change, float scale_vel);

    // Set in the constructor, constant afterwards.
    const bool m_delta_scaling;
    const std::uint32_t m_managed_modes;
    const common::math::PanelMatrix m_m2p;
    const float m_threshold_velocity;
    const float m_threshold_gap;

    TimeStats m_time_stats;
    bool m_is_projection_finite = true;  // of the last Work

    // Work vectors, overwritten by every Work.
    alignas(64) ActuatorVector m_delta{};          // command minus last applied, modal
    alignas(64) ActuatorVector m_delta_act_pos{};  // change of the actuators
    alignas(64) ActuatorVector m_act_pos{};        // present position; overwritten by the scaling step
    alignas(64) ActuatorVector m_new_act_pos{};    // absolute variant: the position that is commanded
};

}  // namespace vosk::ao_tasks
