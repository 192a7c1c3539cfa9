#pragma once

// What the host itself is told: the optional node `host` of the configuration document, and the command line,
// which stands above it.
//
//   host:
//     control_socket: /run/vosk/control     no socket without it
//     shm_prefix: /vosk_                    in front of the names of shared-memory topics
//     log_level: info                       trace, debug, info, warn or error
//     log_file: /var/log/vosk.log           standard output without it
//     priority: 10                          SCHED_FIFO, of threads that name none; 0, ordinary, without it
//     telegraf: {address: 127.0.0.1, port: 8094}   no telemetry lines without it

#include <log4cplus/loglevel.h>
#include <oru/configng/pliConfig.hpp>

#include <optional>
#include <string>

namespace vosk::host {

struct HostSettings {
    std::optional<std::string> control_socket;
    std::optional<std::string> shm_prefix;
    std::optional<std::string> log_level;
    std::optional<std::string> log_file;
    int priority = 0;
    std::string telegraf_address;
    int telegraf_port = 0;
};

inline constexpr const char* DEFAULT_SHM_PREFIX = "/vosk_";
inline constexpr const char* DEFAULT_LOG_LEVEL = "info";

// `top` is the top of the document. Throws PliConfigError, which says where; under a PliConfigReview it notes
// what is wrong with each key.
HostSettings ReadHostSettings(const oru::configng::PliConfigInstanceNode& top);

// Each value of `command_line` that is there, and the others from `document`.
HostSettings Merge(const HostSettings& command_line, const HostSettings& document);

// Throws std::runtime_error for a name that is no level.
log4cplus::LogLevel ParseLogLevel(const std::string& name);

// Throws std::runtime_error if no name of shared memory can begin like this.
void VetShmPrefix(const std::string& prefix);

// Throws std::runtime_error if nothing could be appended to this file now.
void VetLogFile(const std::string& path);

}  // namespace vosk::host
