#include <lumolib/voskTelescopeStateManager.hpp>

#include <lumolib/runtimeMonitor.hpp>
#include <vosk/common/logger.hpp>

namespace vosk::lumo {

VoskTelescopeStateManager& VoskTelescopeStateManager::GetInstance() {
    static VoskTelescopeStateManager instance;
    return instance;
}

defs::VoskControlMode VoskTelescopeStateManager::GetCurrentControlMode() {
    return GetInstance().m_control_mode.load();
}

defs::Camera VoskTelescopeStateManager::GetActiveCameraFs() {
    return GetInstance().m_active_camera_fs.load();
}

bool VoskTelescopeStateManager::GetGPCenteringEnabled() {
    return GetInstance().m_gp_centering_enabled.load();
}

double VoskTelescopeStateManager::GetLatitude() {
    return GetInstance().m_latitude;
}

void VoskTelescopeStateManager::SetCurrentControlMode(defs::VoskControlMode mode) {
    auto& control_mode = GetInstance().m_control_mode;
    const auto from = control_mode.load();
    if (from == mode) return;
    control_mode.store(mode);
    NotifyControlModeObservers(from, mode);
    RuntimeMonitor::GetStateData().SetControlMode(mode);
    common::LogInfo("VoskTelescopeStateManager::SetCurrentControlMode(): Control Mode change {} -> {}",
                    to_string(from), to_string(mode));
}

void VoskTelescopeStateManager::SetActiveCameraFS(defs::Camera camera) {
    auto& active_camera = GetInstance().m_active_camera_fs;
    const auto from = active_camera.load();
    if (from == camera) return;
    active_camera.store(camera);
    common::LogInfo("VoskTelescopeStateManager::SetActiveCameraFS(): Active camera FS change {} -> {}",
                    to_string(from), to_string(camera));
}

void VoskTelescopeStateManager::SetGPCenteringEnabled(bool enabled) {
    GetInstance().m_gp_centering_enabled.store(enabled);
}

void VoskTelescopeStateManager::AttachControlModeObserver(const ControlModeObserver& observer) {
    auto& self = GetInstance();
    const std::lock_guard lock(self.m_observers_mutex);
    self.m_observers.push_back(observer);
}

void VoskTelescopeStateManager::NotifyControlModeObservers(defs::VoskControlMode from,
                                                           defs::VoskControlMode to) {
    auto& self = GetInstance();
    std::unique_lock lock(self.m_observers_mutex);
    const auto observers = self.m_observers;
    lock.unlock();
    for (const auto& observer : observers) observer(from, to);
}

void VoskTelescopeStateManager::Reset() {
    auto& self = GetInstance();
    self.m_control_mode.store(defs::VoskControlMode::TEL_DRIVEN);
    {
        const std::lock_guard lock(self.m_observers_mutex);
        self.m_observers.clear();
    }
    self.m_gp_centering_enabled.store(true);
    common::LogInfo("VoskTelescopeStateManager::Reset(): state reset");
}

}  // namespace vosk::lumo
