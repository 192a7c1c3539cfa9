#include <lumolib/stateData.hpp>

namespace vosk::lumo {

template <class T>
void StateData::Set(T StateTopic::*field, T value) {
    const std::lock_guard lock(m_mutex);
    MarkChanged();
    m_topic.*field = value;
}

void StateData::MarkChanged() {
    m_topic.time = atomclk::AtomClk::now();
    m_topic.changed = true;
}

void StateData::SetGPCentering(bool enabled) {
    Set(&StateTopic::gp_centering, enabled);
}

void StateData::SetPrimaryGP(int gp) {
    Set(&StateTopic::primary_gp, gp);
}

void StateData::SetM1Offload(bool active) {
    Set(&StateTopic::m1_offload, active);
}

void StateData::SetGuiding(bool active) {
    Set(&StateTopic::guiding, active);
}

void StateData::SetAoCmdSource(defs::AoCommandSource source) {
    Set(&StateTopic::ao_cmd_source, source);
}

void StateData::SetControlMode(defs::VoskControlMode mode) {
    const std::lock_guard lock(m_mutex);
    MarkChanged();
    m_topic.control_mode = mode;
    m_topic.mode_change_in_progress = true;
}

void StateData::SetModeChangeCompleted() {
    const std::lock_guard lock(m_mutex);
    m_topic.mode_change_in_progress = false;
}

StateTopic StateData::GetTopicData() const {
    const std::lock_guard lock(m_mutex);
    return m_topic;
}

void StateData::ResetData() {
    const std::lock_guard lock(m_mutex);
    m_topic = {};
}

}  // namespace vosk::lumo
