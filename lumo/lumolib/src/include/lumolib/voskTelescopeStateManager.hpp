#pragma once

// The facts about the telescope that many threads need at once: who drives M4, which camera leads, whether
// guide-probe centering is on, the latitude. The host sets them from one thread at a time; worker threads
// read them from atomics on every sample. One object for the process, which outlives StopThreads with its
// values.

#include <vosk/defs/controlMode.hpp>

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

namespace vosk::lumo {

class VoskTelescopeStateManager {
public:
    using ControlModeObserver = std::function<void(defs::VoskControlMode from, defs::VoskControlMode to)>;

    VoskTelescopeStateManager(const VoskTelescopeStateManager&) = delete;
    VoskTelescopeStateManager& operator=(const VoskTelescopeStateManager&) = delete;

    static VoskTelescopeStateManager& GetInstance();

    // Any thread, lock-free.
    static defs::VoskControlMode GetCurrentControlMode();
    static defs::Camera GetActiveCameraFs();
    static bool GetGPCenteringEnabled();
    static double GetLatitude();  // radians

    // The host's thread. Workers see the new mode before the observers run, which is on this thread too.
    // Nothing happens if the mode is the present one. A value outside the enumeration ends in
    // std::runtime_error "Unknown enum value.", after it has been stored and handed on.
    static void SetCurrentControlMode(defs::VoskControlMode mode);
    static void SetActiveCameraFS(defs::Camera camera);
    static void SetGPCenteringEnabled(bool enabled);

    static void AttachControlModeObserver(const ControlModeObserver& observer);
    static void NotifyControlModeObservers(defs::VoskControlMode from, defs::VoskControlMode to);

    // Mode and centering back to their first values, without a call to any observer, and all observers
    // dropped: VoskHandoverManager::Reset attaches that one again. The active camera stays.
    static void Reset();

private:
    VoskTelescopeStateManager() = default;

    std::atomic<defs::VoskControlMode> m_control_mode = defs::VoskControlMode::TEL_DRIVEN;
    std::vector<ControlModeObserver> m_observers;  // guarded by m_observers_mutex
    std::atomic<defs::Camera> m_active_camera_fs = defs::Camera::IMG_GP1;
    std::atomic<bool> m_gp_centering_enabled = true;
    const double m_latitude = -0.4291659910898936;
    // Taken by set-up and mode changes only, and never across an observer's call: the handover manager can
    // come into being, and attach itself, in the first cycle of AoTasks while the host already changes modes.
    std::mutex m_observers_mutex;
};

}  // namespace vosk::lumo
