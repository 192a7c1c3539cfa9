#include "modeTimeline.hpp"

#include <algorithm>

namespace vosk::rig {

std::size_t ModeTimeline::Ask(defs::VoskControlMode mode, time_point now) {
    const std::lock_guard lock(m_mutex);
    m_changes.push_back({mode, now, time_point::max()});
    return m_changes.size() - 1;
}

void ModeTimeline::Complete(std::size_t change, time_point now) {
    const std::lock_guard lock(m_mutex);
    m_changes[change].done = now;
}

std::vector<defs::VoskControlMode> ModeTimeline::InForce(time_point from, time_point to) const {
    const std::lock_guard lock(m_mutex);
    std::vector<defs::VoskControlMode> modes;
    defs::VoskControlMode before = defs::VoskControlMode::TEL_DRIVEN;
    time_point before_since = time_point::min();
    const auto add = [&](defs::VoskControlMode mode, time_point first, time_point last) {
        if (first <= to && last >= from && std::find(modes.begin(), modes.end(), mode) == modes.end())
            modes.push_back(mode);
    };
    for (const Change& change : m_changes) {
        add(before, before_since, change.done);
        before = change.mode;
        before_since = change.asked;
    }
    add(before, before_since, time_point::max());
    return modes;
}

std::vector<ModeTimeline::Change> ModeTimeline::Changes() const {
    const std::lock_guard lock(m_mutex);
    return m_changes;
}

std::size_t ModeTimeline::HandoversAskedBy(time_point time) const {
    const std::lock_guard lock(m_mutex);
    std::size_t handovers = 0;
    defs::VoskControlMode before = defs::VoskControlMode::TEL_DRIVEN;
    for (const Change& change : m_changes) {
        const bool handover = !defs::IsInsDriven(before) && defs::IsInsDriven(change.mode);
        if (handover && change.asked <= time) ++handovers;
        before = change.mode;
    }
    return handovers;
}

}  // namespace vosk::rig
