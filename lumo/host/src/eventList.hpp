#pragma once

// What the control thread has seen happen to the control state, with the time at which it looked: changes of
// mode, source and handover state. The latest ones only. Control thread.

#include <atomclk/atomClk.hpp>
#include <vosk/defs/controlMode.hpp>

#include <cstddef>
#include <deque>
#include <string>

namespace vosk::host {

inline constexpr std::size_t MAX_EVENTS = 100;

struct ControlState {
    defs::VoskControlMode mode = defs::VoskControlMode::TEL_DRIVEN;
    defs::Camera camera = defs::Camera::IMG_GP1;
    defs::AoCommandSource source = defs::AoCommandSource::OFF;
    int handover_state = 0;
};

struct Event {
    atomclk::AtomClk::time_point time;
    std::string text;  // "mode TEL_DRIVEN", "handover state 1", "source INS"
};

class EventList {
public:
    // Notes what differs from the state seen before; the first state is all new.
    void Look(const ControlState& state, atomclk::AtomClk::time_point now);

    const std::deque<Event>& Get() const { return m_events; }

private:
    void Note(atomclk::AtomClk::time_point now, std::string text);

    bool m_is_first = true;
    ControlState m_seen;
    std::deque<Event> m_events;
};

}  // namespace vosk::host
