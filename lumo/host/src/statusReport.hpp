#pragma once

// The answer to "status": one line of JSON.

#include "eventList.hpp"
#include "machine.hpp"

#include <lumolib/commandCounts.hpp>
#include <lumolib/frameFigures.hpp>
#include <lumolib/performanceData.hpp>
#include <lumolib/stateData.hpp>
#include <lumolib/streamState.hpp>

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace vosk::host {

struct CameraState {
    defs::Camera camera{};
    lumo::StreamTopic stream;
    unsigned long late = 0;
    lumo::FrameTopic frames;
};

struct Status {
    ControlState control;
    bool handover_running = false;      // M4 is on its way from one source to the other
    bool mode_to_be_set_again = false;  // a change of mode has ended without a source for M4
    bool gp_centering = true;           // what the threads go by; the record's is as last commanded
    lumo::StateTopic record;            // of which mode and source are in `control` already
    Machine machine;
    std::vector<ThreadState> threads;
    std::vector<std::string> threads_ended;  // names of the threads that ended by themselves
    std::vector<lumo::StreamTopic> streams;
    std::vector<CameraState> cameras;
    lumo::CommandFigures counts{};
    lumo::PerformanceTopic commands;
    lumo::WavefrontMetricData wavefront;
    lumo::FSTelemetryData field_stabilisation;
    std::uint64_t log_dropped = 0;
    std::deque<Event> events;
};

// Periods in seconds, rates in hertz, times in nanoseconds, 0 for none; null where there is no value, or none
// that JSON can write.
std::string ToJson(const Status& status);

}  // namespace vosk::host
