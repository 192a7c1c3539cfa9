#pragma once

// The process-wide control objects in their first state, and AoTasks' use of them, for tests.

#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/voskHandoverManager.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>

namespace vosk::lumo {

struct HandoverBench {
    HandoverBench() {
        ResetControlState();
        RuntimeMonitor::GetStateData().ResetData();
    }
    ~HandoverBench() { ResetControlState(); }
    HandoverBench(const HandoverBench&) = delete;
    HandoverBench& operator=(const HandoverBench&) = delete;

    // One cycle of AoTasks, as far as it concerns the handover; gives the source that it would send for.
    defs::AoCommandSource RunCycle(bool valid = true, time_point send_time = {}) {
        const auto mode = VoskTelescopeStateManager::GetCurrentControlMode();
        manager.RegisterCycle(mode, valid, [this] { ++ref_shape_updates; });
        const auto source = manager.SourceOfCycle(mode);
        manager.RecordM4CommandSentTimestamp(send_time, mode, source);
        return source;
    }

    static void SetMode(defs::VoskControlMode mode) {
        VoskTelescopeStateManager::SetCurrentControlMode(mode);
    }
    static StateTopic Record() { return RuntimeMonitor::GetStateData().GetTopicData(); }

    VoskHandoverManager& manager = VoskHandoverManager::GetInstance();
    int ref_shape_updates = 0;
};

}  // namespace vosk::lumo
