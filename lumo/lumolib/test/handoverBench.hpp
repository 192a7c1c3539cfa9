#pragma once

// The process-wide control objects in their first state, and AoTasks' use of them, for tests.

#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/voskHandoverManager.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>

namespace vosk::lumo {

class HandoverBench {
public:
    HandoverBench() {
        ResetControlState();
        RuntimeMonitor::GetStateData().ResetData();
    }
    ~HandoverBench() { ResetControlState(); }
    HandoverBench(const HandoverBench&) = delete;
    HandoverBench& operator=(const HandoverBench&) = delete;

    // One cycle of AoTasks, as far as it concerns the handover; gives the source that it would send for.
    defs::AoCommandSource RunCycle(bool valid = true, time_point send_time = time_point{}) {
        const auto mode = VoskTelescopeStateManager::GetCurrentControlMode();
        if (!defs::IsInsDriven(mode)) {
            m_manager.RegisterCcsCommandReceived(mode);
        } else if (const int state = m_manager.GetState(); state != VoskHandoverManager::INS_CONTROL) {
            if (state == VoskHandoverManager::HANDOVER_UPDATE_REF_SHAPE) m_manager.RegisterM4RefShapeUpdate();
            m_manager.RegisterInsCommandReceived(valid, mode);
        }
        const auto source = m_manager.GetM4CmdSource();
        m_manager.RecordM4CommandSentTimestamp(send_time, mode, source);
        return source;
    }

    void RunCycles(int count) {
        for (int i = 0; i < count; ++i) RunCycle();
    }

    static void SetMode(defs::VoskControlMode mode) {
        VoskTelescopeStateManager::SetCurrentControlMode(mode);
    }

    int State() const { return m_manager.GetState(); }
    defs::AoCommandSource Source() const { return m_manager.GetM4CmdSource(); }
    static StateTopic Record() { return RuntimeMonitor::GetStateData().GetTopicData(); }

    VoskHandoverManager& m_manager = VoskHandoverManager::GetInstance();
};

}  // namespace vosk::lumo
