#pragma once

// What the host tells of itself on its control socket.

#include "clock.hpp"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vosk::rig {

struct HostStream {
    std::uint64_t samples = 0;
    std::uint64_t invalid = 0;
    std::uint64_t lost = 0;             // whole samples
    std::uint64_t dropped_packets = 0;  // by the kernel
    std::uint64_t stale_packets = 0;    // of samples that were over
};

// What the host tells of a camera's frames beyond its stream.
struct HostCamera {
    struct Centroid {
        double flux = 0.0;
        double x = 0.0;
        double y = 0.0;
    };

    std::uint64_t late = 0;
    std::uint64_t processed = 0;
    double p50 = 0.0;  // of the processing times, microseconds
    double p99 = 0.0;
    std::optional<Centroid> centroid;  // of the last frame of an imaging camera
};

// What went wrong with commands and setpoints since the host's start.
struct HostCounts {
    std::uint64_t late_setpoints = 0;
    std::uint64_t missing_answers = 0;  // cycles without a usable answer
    std::uint64_t foreign_answers = 0;
    std::uint64_t kept_back_setpoints = 0;
    std::uint64_t overwritten_commands = 0;
    std::uint64_t unfit_source_cycles = 0;
    std::uint64_t failed_mode_changes = 0;
    std::uint64_t clock_steps = 0;
    std::uint64_t grid_points_skipped = 0;
};
inline constexpr std::array<std::pair<const char*, std::uint64_t HostCounts::*>, 9> HOST_COUNTS{
    {{"late_setpoints", &HostCounts::late_setpoints},
     {"missing_answers", &HostCounts::missing_answers},
     {"foreign_answers", &HostCounts::foreign_answers},
     {"kept_back_setpoints", &HostCounts::kept_back_setpoints},
     {"overwritten_commands", &HostCounts::overwritten_commands},
     {"unfit_source_cycles", &HostCounts::unfit_source_cycles},
     {"failed_mode_changes", &HostCounts::failed_mode_changes},
     {"clock_steps", &HostCounts::clock_steps},
     {"grid_points_skipped", &HostCounts::grid_points_skipped}}};

struct HostEvent {
    time_point time;
    std::string text;
};

struct HostStatus {
    std::string mode;
    std::string source;
    int handover_state = 0;
    std::uint64_t log_dropped = 0;
    bool priority_refused = false;  // a thread asked for one and has none
    HostCounts counts;
    std::map<std::string, HostStream> streams;
    std::map<std::string, HostCamera> cameras;
    std::vector<HostEvent> events;
};

// Throws std::runtime_error on text that is no status.
HostStatus ParseHostStatus(const std::string& json);

}  // namespace vosk::rig
