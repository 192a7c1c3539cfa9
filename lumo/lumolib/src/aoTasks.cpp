#include <lumolib/aoTasks.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/utilities.hpp>
#include <lumolib/voskHandoverManager.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <vector>
#include <vosk/common/calibrationFile.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/math/finite.hpp>
#include <vosk/common/timeString.hpp>
#include <vosk/defs/wireRecords.hpp>

namespace vosk::lumo {

using atomclk::AtomClk;
using common::LogDebug;
using common::LogError;
using common::LogTrace;
using defs::AoCommandSource;
using defs::VoskControlMode;

namespace {

using CmdSource = defs::AoM4SetpointApplied::ExtInfo::CmdSource;
using Assembly = ao_tasks::CommandAssembly;
using Saturation = ao_tasks::M4SaturationManagement;

// A value that its block takes. Under a review `harmless` stands for another.
template <class T>
T GetVetted(const oru::configng::PliConfigInstanceNode& node, const std::string& key, void (*vet)(T),
            T harmless = {}) {
    T value = harmless;
    oru::configng::Attempt(node[key], [&] {
        const T given = GetParam<T>(node, key);
        vet(given);
        value = given;
    });
    return value;
}

// Under a review zeroes stand for a matrix that can't be used. A fault of managed_modes explains one of the
// file, and so the number is read in the same step.
std::vector<float> LoadM2p(const oru::configng::PliConfigInstanceNode& node, const AoTasks::Config& config) {
    std::vector<float> m2p;
    oru::configng::Attempt(node["m2p_path"], [&] {
        const auto modes = GetVetted(node, "managed_modes", Saturation::VetManagedModes);
        auto loaded = common::LoadMatrix<float>(config.m2p_path, modes, defs::M4_CMD_SIZE, "M2P");
        Saturation::VetM2p(loaded);
        m2p = std::move(loaded);
    });
    m2p.resize(defs::M4_CMD_SIZE * config.managed_modes);
    return m2p;
}

Saturation::Config SaturationConfig(const oru::configng::PliConfigInstanceNode& node,
                                    const AoTasks::Config& config) {
    return {.delta = config.delta_scaling,
            .managed_modes = config.managed_modes,
            .m2p = LoadM2p(node, config),
            .threshold_velocity = config.threshold_velocity,
            .threshold_gap = config.threshold_gap};
}

CmdSource DeriveCmdSource(AoCommandSource source, VoskControlMode mode) {
    if (source == AoCommandSource::NONE) return CmdSource::NONE;
    switch (mode) {
        case VoskControlMode::TEL_DRIVEN:
        case VoskControlMode::TEL_DRIVEN_WITH_GPAO_TT:
            return CmdSource::CCS;
        case VoskControlMode::INS_DRIVEN_CASCADE:
            return CmdSource::INS_CASCADE;
        case VoskControlMode::INS_DRIVEN_SEQUENTIAL:
            return CmdSource::INS_SEQUENTIAL;
        default:
            throw std::runtime_error("Invalid control mode and/or AO command source.");
    }
}

std::string SinceOrText(AtomClk::time_point time, AtomClk::time_point t0, const char* text) {
    return time == AtomClk::time_point{} ? text : GetTimeString(time - t0);
}

defs::FloatVectorTT AsTipTilt(const ao_tasks::Executor::TipTilt& pair) {
    return {pair[0], pair[1]};
}

defs::FsRef FsRefOf(const ao_tasks::Executor& executor) {
    return {AsTipTilt(executor.m_fs_ref), AsTipTilt(executor.m_tt_ref), AsTipTilt(executor.m_m4_tt)};
}

}  // namespace

AoTasks::AoTasks(const oru::configng::PliConfigInstanceNode& node)
    : Thread{"AoTasks", node, "Adaptive Optics tasks processing thread"},
      m_config{Configure(node)},
      m_executor{{.ho_cascade_modes = m_config.gpao_highest_mode}, SaturationConfig(node, m_config)} {
    m_ins_input = WaitableExchange<AoTasksInsDataSync>(m_busy);
    m_fs_input = WaitableExchange<AoTasksFsDataSync>(m_busy);
    m_gpao_input = WaitableExchange<AoTasksGpaoDataSync>(m_busy);
    // One wait covers the three inputs.
    m_ins_input->ReplaceSynchronizer(m_synchronizer);
    m_fs_input->ReplaceSynchronizer(m_synchronizer);
    m_gpao_input->ReplaceSynchronizer(m_synchronizer);
    m_ao_applied = Exchange<AoM4SetpointAppliedDataSync>();
    m_fs_ref = Exchange<FsRefDataSync>();
    m_m4_output = WaitableExchange<M4OutputDataSync>(m_busy);
    m_m4_input = WaitableExchange<M4InputDataSync>(m_busy);
    m_gpao_applied = Exchange<GpaoM4SetpointAppliedDataSync>();
    m_counts = RuntimeMonitor::GetInstance().m_command_counts;
    LogDebug("AO Tasks thread initialized: cpu = {}", m_cpu);
}

AoTasks::Config AoTasks::Configure(const oru::configng::PliConfigInstanceNode& node) {
    return {.m4_send_delay = GetNonNegativeDurationParam(node, "m4_send_delay"),
            .m4_response_timeout = GetNonNegativeDurationParam(node, "m4_response_timeout"),
            .gpao_highest_mode = GetVetted(node, "gpao_highest_mode", Assembly::VetHoCascadeModes,
                                           Assembly::LOWEST_HO_CASCADE_MODES),
            .delta_scaling = GetParam<bool>(node, "delta_scaling"),
            .managed_modes = GetVetted(node, "managed_modes", Saturation::VetManagedModes),
            .m2p_path = GetParam<std::string>(node, "m2p_path"),
            .threshold_velocity = GetVetted(node, "threshold_velocity", Saturation::VetThresholdVelocity),
            .threshold_gap = GetVetted(node, "threshold_gap", Saturation::VetThresholdGap)};
}

void AoTasks::Work(std::promise<void>& started) {
    m_sample_id = 0;
    ClearInputs();  // a command from before a restart is no news
    started.set_value();
    while (IsRunning()) {
        if (!RunCycle()) return;
    }
}

bool AoTasks::RunCycle() {
    m_time_stats.Clear();
    if (!m_synchronizer->Wait(m_running)) return false;

    Plan plan = ReceiveCommand();
    AssembleCommand();
    ClearInputs();
    SendSetpoint(plan);

    time_point applied_time{};
    const auto applied = ReceiveAndProcessAmSetpointApplied(plan.send_time + m_config.m4_response_timeout,
                                                            plan.source, applied_time);
    if (applied) PublishApplied(plan, *applied, applied_time);
    m_fs_ref->SetData(FsRefOf(m_executor), 0U, AtomClk::now());
    if (applied) m_gpao_applied->SetData(*applied, m_sample_id, AtomClk::now());
    PrintTimeStats();
    return true;
}

AoTasks::Plan AoTasks::ReceiveCommand() {
    m_time_stats.data_received = AtomClk::now();
    const VoskControlMode mode = VoskTelescopeStateManager::GetCurrentControlMode();
    m_executor.Step0_SetControlMode(mode);

    auto& handover = VoskHandoverManager::GetInstance();
    const std::shared_lock lock{m_ins_input->GetMutex()};
    const InsCmdData& command = m_ins_input->GetDataRef();
    const bool valid = (command.flags & InsCmdData::VALID) != 0;
    handover.RegisterCycle(mode, valid, [this] { m_executor.UpdateRefShape(); });
    time_point send_time;
    if (defs::IsInsDriven(mode)) {
        m_time_stats.t0 = m_ins_input->GetTimestamp();
        send_time = m_time_stats.t0 + m_config.m4_send_delay;
    } else {
        m_time_stats.t0 = m_time_stats.data_received;
        send_time = CeilToNextInterval(m_time_stats.t0 + m_config.m4_send_delay,
                                       m_m4_output->send_interval.load(), m_m4_output->send_offset.load());
    }
    const AoCommandSource source = handover.SourceOfCycle(mode);
    m_executor.Step1_CommandSplitting(command.command);
    return {mode, source, send_time};
}

// The executor locks what the mode needs; the locks go in reverse order at the end.
void AoTasks::AssembleCommand() {
    std::shared_lock fs_lock{m_fs_input->GetMutex(), std::defer_lock};
    std::shared_lock gpao_lock{m_gpao_input->GetMutex(), std::defer_lock};
    m_executor.Step2_CommandAssembly(fs_lock, gpao_lock, m_fs_input->GetDataRef().AsSpan(),
                                     m_gpao_input->GetDataRef().command);
}

// Data that arrived until now is dropped as a wake-up; it stays in its object.
void AoTasks::ClearInputs() {
    m_ins_input->ClearDataReady();
    m_fs_input->ClearDataReady();
    m_gpao_input->ClearDataReady();
}

// Finite commands can have sums and positions that are not: such a setpoint is kept back, and the cycle is
// one without a source.
void AoTasks::SendSetpoint(Plan& plan) {
    const auto setpoint = m_executor.Step3_ProcessM4SetpointData();
    m_time_stats.process_m4_setpoint = AtomClk::now();
    if (plan.source != AoCommandSource::NONE && !m_executor.IsSetpointFinite()) {
        LogError(
            "AoTasks: the setpoint or its actuator positions are not finite, nothing is sent to M4 at {}",
            GetTimeString(plan.send_time));
        m_counts->kept_back_setpoints.fetch_add(1, std::memory_order_relaxed);
        plan.source = AoCommandSource::NONE;
    }
    const time_point now = AtomClk::now();
    if (plan.source != AoCommandSource::NONE && IsClockSetBack(now)) {
        LogError("AoTasks: the clock was set back, nothing is sent to M4 at {}",
                 GetTimeString(plan.send_time));
        m_counts->late_setpoints.fetch_add(1, std::memory_order_relaxed);
        plan.source = AoCommandSource::NONE;
    }
    if (plan.source != AoCommandSource::NONE) {
        ++m_sample_id;
        m_m4_output->SetData(setpoint, plan.send_time, m_sample_id, now);
        m_time_stats.m4_cmd_send = plan.send_time;
    }
    VoskHandoverManager::GetInstance().RecordM4CommandSentTimestamp(plan.send_time, plan.mode, plan.source);
}

std::optional<std::span<float, defs::INS_CMD_SIZE>> AoTasks::ReceiveAndProcessAmSetpointApplied(
    const time_point& deadline, AoCommandSource source, time_point& applied_time) {
    if (source == AoCommandSource::NONE) return m_executor.Step4c_ProcessLastM4SetpointAppliedData();

    // An answer left over from an earlier cycle must not satisfy this wait.
    std::shared_lock lock{m_m4_input->GetMutex()};
    m_m4_input->ClearDataReady();
    lock.unlock();
    if (!WaitForAnswer(lock, deadline)) {
        m_executor.Step4d_NotProcessM4SetpointAppliedData();
        return {};
    }
    const auto received_id = m_m4_input->GetSampleId();
    const AnswerFault fault = FaultOfAnswer();
    std::span<float, defs::INS_CMD_SIZE> applied = TakeAnswer(fault, applied_time);
    m_m4_input->ClearDataReady();
    lock.unlock();
    if (fault != AnswerFault::NONE) ReportFault(fault, received_id);
    return applied;
}

// Since the cycle, or its command, began: its times lie further away than they were meant.
bool AoTasks::IsClockSetBack(time_point now) const {
    return WasSetBack(std::max(m_time_stats.t0, m_time_stats.data_received), now);
}

// True: an answer has come or will not come, and `lock` is held. M4Input notifies after it has given the lock
// back, so that a notification may come a cycle late; the wait then goes on. Test and clear stand under one
// lock, or an answer between them would be lost.
bool AoTasks::WaitForAnswer(std::shared_lock<std::shared_mutex>& lock, time_point deadline) {
    const auto synchronizer = m_m4_input->GetSynchronizer();
    const auto end = [&] { return IsClockSetBack(AtomClk::now()) ? time_point{} : deadline; };
    while (synchronizer->WaitUntil(end(), m_running)) {
        lock.lock();
        if (m_m4_input->IsNewData() || !m_m4_input->IsDataReady()) return true;
        m_m4_input->ClearDataReady();
        lock.unlock();
    }
    return false;
}

// With the shared lock of M4InputDataSync held.
AoTasks::AnswerFault AoTasks::FaultOfAnswer() const {
    if (!m_m4_input->IsNewData()) return AnswerFault::MISSING;
    if (m_m4_input->GetSampleId() != m_sample_id) return AnswerFault::OTHER_SAMPLE;
    if (!common::math::AllFinite(m_m4_input->GetDataRef().setpoint)) return AnswerFault::NOT_FINITE;
    return AnswerFault::NONE;
}

// With the shared lock of M4InputDataSync held.
std::span<float, defs::INS_CMD_SIZE> AoTasks::TakeAnswer(AnswerFault fault, time_point& applied_time) {
    if (fault != AnswerFault::NONE) return m_executor.Step4b_ProcessInvalidM4SetpointAppliedData();
    const M4SetpointAppliedData& answer = m_m4_input->GetDataRef();
    applied_time = answer.applied_time;
    return m_executor.Step4a_ProcessM4SetpointAppliedData(answer.setpoint);
}

// Without a lock: formatting takes longer than all that is done under it.
void AoTasks::ReportFault(AnswerFault fault, std::uint32_t received_id) const {
    const std::string now = GetTimeString(AtomClk::now());
    auto& count = fault == AnswerFault::OTHER_SAMPLE ? m_counts->foreign_answers : m_counts->missing_answers;
    count.fetch_add(1, std::memory_order_relaxed);
    if (fault == AnswerFault::MISSING) {
        LogError(
            "AoTasks::ReceiveAndProcessAmSetpointApplied(): no 'am:setpoint_applied' response from M4 at {}, "
            "sample ID = {}",
            now, m_sample_id);
    } else if (fault == AnswerFault::OTHER_SAMPLE) {
        LogError(
            "AoTasks::ReceiveAndProcessAmSetpointApplied(): received 'am:setpoint_applied' response at {} "
            "with different sample ID then M4 command sent: {} vs {}",
            now, m_sample_id, received_id);
    } else {
        LogError(
            "AoTasks::ReceiveAndProcessAmSetpointApplied(): the 'am:setpoint_applied' response from M4 at {} "
            "holds values that are not finite, sample ID = {}",
            now, m_sample_id);
    }
}

void AoTasks::PublishApplied(const Plan& plan, std::span<float, defs::INS_CMD_SIZE> applied,
                             time_point applied_time) {
    const CmdSource cmd_source = DeriveCmdSource(plan.source, plan.mode);
    m_ao_applied->SetData(applied, applied_time, cmd_source, m_sample_id, AtomClk::now());
    m_time_stats.send_ao_m4_applied = AtomClk::now();
}

void AoTasks::PrintTimeStats() const {
    if (!common::GetLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) return;
    const TimeStats& stats = m_time_stats;
    LogTrace(
        "AoTasks processing timings (duration from t0):\n\tt0 = {}, data_received = +{}, process_m4_setpoint "
        "= +{}, m4_cmd_send = +{}, send_ao_m4_applied = +{}",
        GetTimeString(stats.t0), GetTimeString(stats.data_received - stats.t0),
        GetTimeString(stats.process_m4_setpoint - stats.t0),
        SinceOrText(stats.m4_cmd_send, stats.t0, "[not sent]"),
        SinceOrText(stats.send_ao_m4_applied, stats.t0, "[not updated]"));
    m_executor.PrintTimeStats();
}

}  // namespace vosk::lumo
