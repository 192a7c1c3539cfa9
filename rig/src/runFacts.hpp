#pragma once

// What is known of the run and of the host when a run is over, whoever its peers were.

#include "clock.hpp"
#include "host/hostStatus.hpp"
#include "modeTimeline.hpp"
#include "scenario.hpp"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vosk::rig {

// A command to the host for its imaging cameras.
struct HostCommand {
    time_point asked;
    time_point done;
    StepAction action;
};

// What the host told of its cameras in between.
struct CameraLook {
    time_point asked;
    time_point answered;
    std::map<std::string, HostCamera> cameras;
};

struct RunFacts {
    std::string advice;  // what this run lacks on this machine and how to get it, if anything
    time_point start;    // of the instrument's time grid
    std::vector<ModeTimeline::Change> modes;
    std::vector<HostCommand> commands;
    std::vector<CameraLook> looks;
    HostStatus status;       // the last one before the end
    time_point status_time;  // when the rig asked for it
    time_point status_answered;
    bool at_rest = false;                  // no sample was on its way then
    std::optional<time_point> stop_asked;  // of the host, in mid-run
    std::optional<std::chrono::nanoseconds> stop_took;
    std::optional<int> host_exit;
    std::optional<std::string> trouble;  // what ended the run early, if anything did

    double SecondsSinceStart(time_point time) const {
        return std::chrono::duration<double>(time - start).count();
    }
    // Null if the host tells nothing of a stream of this name.
    const HostStream* FindStream(const std::string& name) const {
        const auto found = status.streams.find(name);
        return found == status.streams.end() ? nullptr : &found->second;
    }
    const HostCamera* FindCamera(const std::string& name) const {
        const auto found = status.cameras.find(name);
        return found == status.cameras.end() ? nullptr : &found->second;
    }
};

}  // namespace vosk::rig
