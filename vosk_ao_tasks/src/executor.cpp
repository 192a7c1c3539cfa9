#include <vosk/ao_tasks/executor.hpp>
#include <vosk/common/assert.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/math/finite.hpp>
#include <vosk/common/timeString.hpp>

#include <algorithm>
#include <mutex>

namespace vosk::ao_tasks {

using atomclk::AtomClk;
using defs::VoskControlMode;

Executor::Executor(const CommandAssembly::Config& assembly, const M4SaturationManagement::Config& saturation)
    : m_command_assembly{assembly}, m_saturation{saturation} {}

void Executor::Step0_SetControlMode(VoskControlMode mode) {
    VOSK_ASSERT(m_state == State::DONE);
    m_control_mode = mode;
    m_state = State::STEP0;
    m_time_stats.Clear();
}

void Executor::Step1_CommandSplitting(std::span<const float, defs::WAVEFRONT_CMD_SIZE> command) {
    VOSK_ASSERT(m_state == State::STEP0);
    m_time_stats.cmd_splitting_start = AtomClk::now();
    m_command_splitting.Work(command, m_fs_ref, m_tt_ref, m_ho_command);
    m_state = State::STEP1;
    m_time_stats.cmd_splitting_end = AtomClk::now();
}

void Executor::Step2_CommandAssembly(SharedLock& u4_fs_tt_lock, SharedLock& gpao_lock,
                                     std::span<const float, defs::TIP_TILT_SIZE> u4_fs_tt,
                                     std::span<const float, defs::INS_CMD_SIZE> gpao_command) {
    VOSK_ASSERT(m_state == State::STEP0 || m_state == State::STEP1);
    m_time_stats.cmd_assembly_start = AtomClk::now();
    LockInputs(u4_fs_tt_lock, gpao_lock);
    m_command_assembly.Work(u4_fs_tt, gpao_command, m_ho_command, m_tt_ref, m_assembled_command,
                            m_control_mode);
    m_time_stats.cmd_assembly_end = AtomClk::now();
    m_state = State::STEP2;
}

void Executor::LockInputs(SharedLock& u4_fs_tt_lock, SharedLock& gpao_lock) const {
    const bool uses_u4_fs_tt = m_command_assembly.IsUsingU4FsTtInput(m_control_mode);
    const bool uses_gpao = m_command_assembly.IsUsingGpaoCmdInput(m_control_mode);
    if (uses_u4_fs_tt && uses_gpao) {
        std::lock(u4_fs_tt_lock, gpao_lock);
    } else if (uses_u4_fs_tt) {
        u4_fs_tt_lock.lock();
    } else if (uses_gpao) {
        gpao_lock.lock();
    }
}

std::span<float, defs::M4_CMD_SIZE> Executor::Step3_ProcessM4SetpointData() {
    VOSK_ASSERT(m_state == State::STEP2);
    m_time_stats.ref_shape_start = AtomClk::now();
    m_ref_shape.ApplyRefShape(+1.0F, m_assembled_command);
    m_time_stats.ref_shape_end = AtomClk::now();
    m_saturation.Work(m_assembled_command, m_last_applied, m_setpoint);
    m_time_stats.saturation_end = AtomClk::now();
    m_state = State::STEP3;
    return m_setpoint;
}

bool Executor::IsSetpointFinite() const {
    VOSK_ASSERT(m_state == State::STEP3);
    return m_saturation.IsProjectionFinite() && common::math::AllFinite(m_setpoint);
}

std::span<float, defs::INS_CMD_SIZE> Executor::Step4a_ProcessM4SetpointAppliedData(
    std::span<const float, defs::M4_CMD_SIZE> applied) {
    VOSK_ASSERT(m_state == State::STEP3);
    m_time_stats.applied_start = AtomClk::now();
    std::copy_n(applied.begin(), m_applied_modal.size(), m_applied_modal.begin());
    m_ref_shape.ApplyRefShape(-1.0F, m_applied_modal);
    std::copy(applied.begin(), applied.end(), m_last_applied.begin());
    m_m4_tt = {m_applied_modal[0], m_applied_modal[1]};
    SwitchS19_impl();
    m_time_stats.applied_end = AtomClk::now();
    m_state = State::DONE;
    return m_applied_modal;
}

std::span<float, defs::INS_CMD_SIZE> Executor::Step4b_ProcessInvalidM4SetpointAppliedData() {
    VOSK_ASSERT(m_state == State::STEP3);
    m_time_stats.applied_start = AtomClk::now();
    m_applied_modal.fill(0.0F);
    m_last_applied.fill(0.0F);
    m_m4_tt = {};
    SwitchS19_impl();
    m_time_stats.applied_end = AtomClk::now();
    m_state = State::DONE;
    return m_applied_modal;
}

std::span<float, defs::INS_CMD_SIZE> Executor::Step4c_ProcessLastM4SetpointAppliedData() {
    VOSK_ASSERT(m_state == State::STEP3);
    m_time_stats.applied_start = m_time_stats.applied_end = AtomClk::now();
    m_state = State::DONE;
    return m_applied_modal;
}

void Executor::Step4d_NotProcessM4SetpointAppliedData() {
    VOSK_ASSERT(m_state == State::STEP3);
    m_time_stats.applied_start = AtomClk::now();
    m_m4_tt = {};
    SwitchS19_impl();
    m_time_stats.applied_end = AtomClk::now();
    m_state = State::DONE;
}

// Where the instrument drives M4 alone, its pair went to M4 and is no reference for field stabilisation.
void Executor::SwitchS19_impl() {
    if (m_control_mode == VoskControlMode::INS_DRIVEN_SEQUENTIAL) m_tt_ref = {};
}

void Executor::UpdateRefShape() {
    m_ref_shape.UpdateRefShape(m_last_applied);
}

void Executor::ResetState() {
    m_state = State::DONE;
}

void Executor::PrintTimeStats() const {
    if (!common::GetLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) return;
    using lumo::GetTimeString;
    const TimeStats& at = m_time_stats;
    common::LogTrace(
        "AoTasks data processing timings (task duration):\n\tcmd_splitting = {}, cmd_assembly = {}, "
        "m4_ref_shape = {}, m4_saturation = {}, m4_applied_process = {}",
        GetTimeString(at.cmd_splitting_end - at.cmd_splitting_start),
        GetTimeString(at.cmd_assembly_end - at.cmd_assembly_start),
        GetTimeString(at.ref_shape_end - at.ref_shape_start),
        GetTimeString(at.saturation_end - at.ref_shape_end),
        GetTimeString(at.applied_end - at.applied_start));
    m_saturation.PrintTimeStats();
}

}  // namespace vosk::ao_tasks
