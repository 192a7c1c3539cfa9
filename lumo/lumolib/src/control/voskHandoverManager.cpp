#include <lumolib/voskHandoverManager.hpp>

#include <lumolib/wrappingTime.hpp>

#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/timeString.hpp>

namespace vosk::lumo {

using defs::AoCommandSource;
using defs::VoskControlMode;

namespace {

// A handover takes 3 cycles, a handback 2.
constexpr std::uint32_t CYCLES_UNTIL_STUCK = 100;

bool Suits(AoCommandSource source, VoskControlMode mode) {
    switch (mode) {
        case VoskControlMode::INS_DRIVEN_SEQUENTIAL:
        case VoskControlMode::INS_DRIVEN_CASCADE:
            return source != AoCommandSource::CCS;
        case VoskControlMode::TEL_DRIVEN:
        case VoskControlMode::TEL_DRIVEN_WITH_GPAO_TT:
            return source != AoCommandSource::INS;
        default:
            return true;
    }
}

}  // namespace

VoskHandoverManager& VoskHandoverManager::GetInstance() {
    static VoskHandoverManager instance;
    return instance;
}

VoskHandoverManager::VoskHandoverManager() {
    Attach();
}

void VoskHandoverManager::Attach() {
    VoskTelescopeStateManager::AttachControlModeObserver(
        [this](VoskControlMode from, VoskControlMode to) { ControlModeChangeCallback(from, to); });
}

void VoskHandoverManager::Reset() {
    m_state.store(IDLE);
    m_m4_cmd_source.store(AoCommandSource::OFF);
    m_handover_start.store({});
    m_first_none_cmd_time.store({});
    m_first_ins_cmd_time.store({});
    m_cycles_without_source.store(0);
    Attach();
}

void VoskHandoverManager::ControlModeChangeCallback(VoskControlMode from, VoskControlMode to) {
    if (IsInsDriven(from) == IsInsDriven(to)) {
        RuntimeMonitor::GetStateData().SetModeChangeCompleted();
        common::LogInfo("HandoverStateManager: changing control mode variant, no handover/handback");
    } else if (IsInsDriven(to)) {
        StartHandover();
    } else {
        StartHandback();
    }
}

// The times come before the state: a cycle that sees the state may read and record them.
void VoskHandoverManager::StartHandover() {
    m_cycles_without_source.store(0);
    m_handover_start.store(atomclk::AtomClk::now());
    m_first_none_cmd_time.store({});
    m_first_ins_cmd_time.store({});
    m_state.store(HANDOVER_UPDATE_REF_SHAPE);
    SetM4CmdSource(AoCommandSource::NONE);
    common::LogInfo("HandoverStateManager: starting handover sequence, update M4 reference shape");
}

void VoskHandoverManager::StartHandback() {
    m_cycles_without_source.store(0);
    m_state.store(HANDBACK_WAIT_CCS_CMD);
    SetM4CmdSource(AoCommandSource::NONE);
    common::LogInfo("HandoverStateManager: handback to CCS started, waiting for the first commands");
}

void VoskHandoverManager::RegisterM4RefShapeUpdate() {
    if (m_state.load() != HANDOVER_UPDATE_REF_SHAPE) return;
    m_state.store(HANDOVER_WAIT_INS_CMD);
    common::LogInfo("HandoverStateManager: updated M4 reference shape, wait for a valid command from INS");
}

void VoskHandoverManager::RegisterInsCommandReceived(bool valid, VoskControlMode /*mode*/) {
    if (!valid) return;
    const int state = m_state.load();
    if (state == HANDOVER_WAIT_INS_CMD) {
        m_state.store(HANDOVER_WAIT_NEXT_INS_CMD);
        common::LogInfo(
            "HandoverStateManager: handover sequence, received first valid command from INS, discarding...");
    } else if (state == HANDOVER_WAIT_NEXT_INS_CMD) {
        m_state.store(INS_CONTROL);
        SetM4CmdSource(AoCommandSource::INS);
        RuntimeMonitor::GetStateData().SetModeChangeCompleted();
        common::LogDebug("HandoverStateManager: handover completed, INS has control");
    }
}

void VoskHandoverManager::RegisterCcsCommandReceived(VoskControlMode /*mode*/) {
    const int state = m_state.load();
    if (state == HANDBACK_WAIT_CCS_CMD) {
        m_state.store(HANDBACK_WAIT_NEXT_CCS_CMD);
        common::LogInfo(
            "HandoverStateManager: handback sequence, received first command from CCS, discarding...");
    } else if (state == HANDBACK_WAIT_NEXT_CCS_CMD) {
        m_state.store(IDLE);
        SetM4CmdSource(AoCommandSource::CCS);
        RuntimeMonitor::GetStateData().SetModeChangeCompleted();
        common::LogDebug("HandoverStateManager: handback completed, CCS has control");
    } else if (state == IDLE && GetM4CmdSource() == AoCommandSource::OFF) {
        SetM4CmdSource(AoCommandSource::CCS);
        common::LogDebug("HandoverStateManager: initialize M4 cmd source, CCS has control");
    }
}

bool VoskHandoverManager::IsModeToBeSetAgain() const {
    return m_cycles_without_source.load() >= CYCLES_UNTIL_STUCK;
}

AoCommandSource VoskHandoverManager::SourceOfCycle(VoskControlMode mode) {
    const AoCommandSource source = GetM4CmdSource();
    const bool suits = Suits(source, mode);
    CommandCounts& counts = *RuntimeMonitor::GetInstance().m_command_counts;
    if (!suits) counts.unfit_source_cycles.fetch_add(1, std::memory_order_relaxed);
    if (suits && source != AoCommandSource::NONE) {
        m_cycles_without_source.store(0);
        return source;
    }
    if (++m_cycles_without_source == CYCLES_UNTIL_STUCK) {
        counts.failed_mode_changes.fetch_add(1, std::memory_order_relaxed);
        common::LogWarn(
            "HandoverStateManager: nobody has commanded M4 for {} cycles, the control mode is to be set "
            "again",
            CYCLES_UNTIL_STUCK);
    }
    return AoCommandSource::NONE;
}

void VoskHandoverManager::RecordM4CommandSentTimestamp(const time_point& time, VoskControlMode mode,
                                                       AoCommandSource source) {
    if (!IsInsDriven(mode)) return;
    if (m_state.load() != INS_CONTROL) {
        if (m_first_none_cmd_time.load() == time_point{} && source == AoCommandSource::NONE) {
            m_first_none_cmd_time.store(time);
        }
    } else if (m_first_ins_cmd_time.load() == time_point{} && source == AoCommandSource::INS) {
        m_first_ins_cmd_time.store(time);
        PrintStats();
    }
}

void VoskHandoverManager::SetM4CmdSource(AoCommandSource source) {
    const auto from = m_m4_cmd_source.load();
    if (from == source) return;
    m_m4_cmd_source.store(source);
    RuntimeMonitor::GetStateData().SetAoCmdSource(source);
    common::LogInfo("HandoverStateManager::SetM4CmdSource(): CmdSource change {} -> {}", to_string(from),
                    to_string(source));
}

void VoskHandoverManager::PrintStats() const {
    if (!common::GetLogger().isEnabledFor(log4cplus::DEBUG_LOG_LEVEL)) return;
    const auto start = m_handover_start.load();
    common::LogDebug("\t-> Handover completed:\n\t\tTime to NONE cmd = {}\n\t\tTime to INS cmd = {}",
                     GetTimeString(WrappingDifference(m_first_none_cmd_time.load(), start)),
                     GetTimeString(WrappingDifference(m_first_ins_cmd_time.load(), start)));
}

void ResetControlState() {
    VoskHandoverManager& handover = VoskHandoverManager::GetInstance();
    VoskTelescopeStateManager::Reset();
    handover.Reset();
}

}  // namespace vosk::lumo
