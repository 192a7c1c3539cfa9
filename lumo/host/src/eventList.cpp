#include "eventList.hpp"

#include <fmt/format.h>

#include <utility>

namespace vosk::host {

void EventList::Look(const ControlState& state, atomclk::AtomClk::time_point now) {
    const ControlState before = std::exchange(m_seen, state);
    const bool all = std::exchange(m_is_first, false);
    if (all || before.mode != state.mode) Note(now, "mode " + to_string(state.mode));
    if (all || before.camera != state.camera) Note(now, "camera " + to_string(state.camera));
    if (all || before.handover_state != state.handover_state) {
        Note(now, fmt::format("handover state {}", state.handover_state));
    }
    if (all || before.source != state.source) Note(now, "source " + to_string(state.source));
}

void EventList::Note(atomclk::AtomClk::time_point now, std::string text) {
    if (m_events.size() == MAX_EVENTS) m_events.pop_front();
    m_events.push_back({now, std::move(text)});
}

}  // namespace vosk::host
