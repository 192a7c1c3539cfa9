#pragma once

// The step machine of the AO command path: turns one wavefront command into one M4 setpoint, and M4's answer
// into what the rest of the system publishes. AoTasks makes it and drives one pass a cycle on its own thread:
// steps 0, 1, 2, 3, then one of 4a to 4d. The steps are separate because AoTasks works between them (locks,
// publishing, waiting). A step out of order is a bug and stops the process. After construction nothing
// allocates or fails. One thread only; no lock of its own. The spans that steps return view the executor's
// buffers.

#include <atomclk/atomClk.hpp>
#include <vosk/ao_tasks/commandAssembly.hpp>
#include <vosk/ao_tasks/commandSplitting.hpp>
#include <vosk/ao_tasks/m4ReferenceShape.hpp>
#include <vosk/ao_tasks/m4SaturationManagement.hpp>
#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/sizes.hpp>

#include <array>
#include <cstdint>
#include <shared_mutex>
#include <span>

namespace vosk::ao_tasks {

// Buffers begin on cache lines: NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
class Executor {
public:
    // The last step that was completed.
    enum class State : std::uint32_t { STEP0, STEP1, STEP2, STEP3, DONE };

    using SharedLock = std::shared_lock<std::shared_mutex>;
    using TipTilt = std::array<float, defs::TIP_TILT_SIZE>;

    // Throws std::runtime_error on bad block parameters.
    Executor(const CommandAssembly::Config& assembly, const M4SaturationManagement::Config& saturation);

    // Begins a pass; needs the former one to be done.
    void Step0_SetControlMode(defs::VoskControlMode mode);

    // May be left out of a pass: step 2 then works on the high-order part and the pair of the pass before.
    void Step1_CommandSplitting(std::span<const float, defs::WAVEFRONT_CMD_SIZE> command);

    // Both locks come unlocked and bound to the mutexes of the two inputs. Those that the mode needs are
    // locked, without a deadlock, and left so: the caller releases them. May throw the std::system_error of a
    // lock.
    void Step2_CommandAssembly(SharedLock& u4_fs_tt_lock, SharedLock& gpao_lock,
                               std::span<const float, defs::TIP_TILT_SIZE> u4_fs_tt,
                               std::span<const float, defs::INS_CMD_SIZE> gpao_command);

    // The setpoint to send: assembled command plus reference shape, limited.
    std::span<float, defs::M4_CMD_SIZE> Step3_ProcessM4SetpointData();

    // After step 3: whether the setpoint and the actuator positions behind it are finite. The setpoint alone
    // does not show it: the limits turn infinite values into zeroes, and a NaN position limits nothing.
    bool IsSetpointFinite() const;

    // M4 answered with the right sample. The result of 4a to 4c is what M4 applied, reference shape removed.
    std::span<float, defs::INS_CMD_SIZE> Step4a_ProcessM4SetpointAppliedData(
        std::span<const float, defs::M4_CMD_SIZE> applied);

    // M4 did not answer, or with a wrong sample: all applied data reads zero, and the next step is limited as
    // if it started from zero.
    std::span<float, defs::INS_CMD_SIZE> Step4b_ProcessInvalidM4SetpointAppliedData();

    // No setpoint was sent in this pass: the last data stays and is published again.
    std::span<float, defs::INS_CMD_SIZE> Step4c_ProcessLastM4SetpointAppliedData();

    // The answer is not looked at: applied data stays, its tip/tilt reads zero.
    void Step4d_NotProcessM4SetpointAppliedData();

    // Makes the last applied setpoint the new reference shape. In any state.
    void UpdateRefShape();

    // Gives up a pass that was begun.
    void ResetState();

    // Logs at TRACE how long the steps of the last pass took, if the worker threads' logger takes TRACE.
    void PrintTimeStats() const;

    // The record for field stabilisation, 24 bytes in this order. The caller reads it after a step 4.
    TipTilt m_fs_ref{};  // elements 0 and 1 of the last split command
    TipTilt m_tt_ref{};  // elements 2 and 3; zero after a pass in INS_DRIVEN_SEQUENTIAL, save after step 4c
    TipTilt m_m4_tt{};   // tip/tilt of the last applied setpoint, reference shape removed

private:
    using TimePoint = atomclk::AtomClk::time_point;

    struct TimeStats {
        TimePoint cmd_splitting_start;
        TimePoint cmd_splitting_end;
        TimePoint cmd_assembly_start;
        TimePoint cmd_assembly_end;
        TimePoint ref_shape_start;
        TimePoint ref_shape_end;
        TimePoint saturation_end;
        TimePoint applied_start;
        TimePoint applied_end;

        void Clear() { *this = {}; }
    };

    void LockInputs(SharedLock& u4_fs_tt_lock, SharedLock& gpao_lock) const;
    void SwitchS19_impl();

    State m_state = State::DONE;
    defs::VoskControlMode m_control_mode = defs::VoskControlMode::TEL_DRIVEN;
    TimeStats m_time_stats;
    CommandAssembly m_command_assembly;
    CommandSplitting m_command_splitting;
    M4ReferenceShape m_ref_shape;
    M4SaturationManagement m_saturation;
    alignas(64) std::array<float, defs::HIGH_ORDER_SIZE> m_ho_command{};     // of the last split command
    alignas(64) std::array<float, defs::M4_CMD_SIZE> m_assembled_command{};  // after step 3 with the shape
    alignas(64) std::array<float, defs::M4_CMD_SIZE> m_last_applied{};       // reference shape included
    alignas(64) std::array<float, defs::M4_CMD_SIZE> m_setpoint{};           // after saturation management
    alignas(64) std::array<float, defs::INS_CMD_SIZE> m_applied_modal{};     // last applied, shape removed
};

}  // namespace vosk::ao_tasks
