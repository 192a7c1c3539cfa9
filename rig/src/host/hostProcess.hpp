#pragma once

// The system under test as a child process: its configuration, its start, its control socket, its end. Used
// by the thread that drives the run.

#include "calibration.hpp"
#include "scenario.hpp"

#include <sys/types.h>
#include <atomclk/atomClk.hpp>
#include <vosk/defs/sizes.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vosk::rig {

// UDP ports on the loopback interface, and the topics on them.
struct Ports {
    std::uint16_t wavefront_command = 47801;
    std::uint16_t setpoint = 47802;
    std::uint16_t setpoint_applied = 47803;
    std::uint16_t feedback = 47804;

    // Four that nobody uses at the moment.
    static Ports FindFree();
};

struct Topics {
    static constexpr std::uint32_t WAVEFRONT_COMMAND = 401;
    static constexpr std::uint32_t SETPOINT = 402;
    static constexpr std::uint32_t SETPOINT_APPLIED = 403;
    static constexpr std::uint32_t FEEDBACK = 404;
};

// The host's document for the scenario, as YAML.
std::string MakeHostDocument(const Scenario& scenario, const Ports& ports, const std::filesystem::path& basis,
                             SaturationLimits limits);

struct HostStream {
    std::uint64_t samples = 0;
    std::uint64_t invalid = 0;
    std::uint64_t lost = 0;             // whole samples
    std::uint64_t dropped_packets = 0;  // by the kernel
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
    atomclk::AtomClk::time_point time;
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
    std::vector<HostEvent> events;
};

// Throws std::runtime_error on text that is no status.
HostStatus ParseHostStatus(const std::string& json);

class HostProcess {
public:
    struct Files {
        std::filesystem::path program;
        std::filesystem::path document;
        std::filesystem::path socket;
        std::filesystem::path log;  // takes the host's standard output and error
    };

    // Starts the host. Throws std::runtime_error if that can't be done.
    explicit HostProcess(Files files);
    // Ends the host by force if it still runs.
    ~HostProcess();
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    // Waits until the host answers on its control socket. Throws, with the end of its log, if it doesn't.
    void WaitReady(std::chrono::milliseconds patience);

    // One line each way. Throws std::runtime_error if the host is gone or answers with an error.
    std::string Ask(const std::string& line);
    HostStatus Status();

    bool Running();
    void Terminate();  // SIGTERM; returns at once
    // Exit code, or 128 and the number of the signal that ended it; nothing if it runs on.
    std::optional<int> WaitExit(std::chrono::milliseconds patience);

private:
    void Connect();
    void EndByForce();
    void CheckExit();

    Files m_files;
    pid_t m_pid = -1;
    int m_connection = -1;
    std::optional<int> m_exit;
    std::string m_received;  // bytes behind the last whole line
};

}  // namespace vosk::rig
