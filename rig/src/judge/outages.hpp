#pragma once

// When the loops of the telescope were open, as the scenario had a peer of theirs die or fall silent. Pure
// functions of the scenario.

#include "scenario.hpp"

#include <string>
#include <vector>

namespace vosk::rig {

// The part of a loop that a peer stands in.
enum class Leg { Field, Gpao, Instrument, M4 };

// Seconds after the start; without an end, the run's.
struct Outage {
    std::string who;
    Leg leg;
    double from = 0.0;
    double to = 0.0;
};

// In the order of their begin.
std::vector<Outage> OutagesOf(const Scenario& scenario);

// Whether the loop of these modes hangs on that part.
bool HangsOn(Leg leg, defs::VoskControlMode mode, bool tip_tilt);

// A part of the run in which nobody was away whom the loop hangs on.
struct ClosedStretch {
    double begin = 0.0;
    double end = 0.0;
    std::string after;  // who came back at its begin; empty for none
};

// Of a stretch of the run in one mode, for tip and tilt or the modes above.
std::vector<ClosedStretch> ClosedStretches(const std::vector<Outage>& outages, defs::VoskControlMode mode,
                                           bool tip_tilt, ClosedStretch whole);

}  // namespace vosk::rig
