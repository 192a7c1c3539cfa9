#include "hostSettings.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>
#include <nodepin/nodepin.hpp>
#include <oru/configng/pliConfigReview.hpp>

#include <cerrno>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <system_error>
#include <vosk/common/shmif/shmIf.hpp>

namespace vosk::host {

using oru::configng::PliConfigError;
using oru::configng::PliConfigInstanceNode;

namespace {

template <std::optional<std::string> HostSettings::*Field>
void ReadText(const PliConfigInstanceNode& value, HostSettings& settings) {
    settings.*Field = value.As<std::string>();
}

void ReadShmPrefix(const PliConfigInstanceNode& value, HostSettings& settings) {
    settings.shm_prefix = value.As<std::string>();
    VetShmPrefix(*settings.shm_prefix);
}

void ReadLogLevel(const PliConfigInstanceNode& value, HostSettings& settings) {
    settings.log_level = value.As<std::string>();
    ParseLogLevel(*settings.log_level);
}

void ReadPriority(const PliConfigInstanceNode& value, HostSettings& settings) {
    const int priority = value.As<int>();
    if (priority < 0 || priority > nodepin::MAX_PRIORITY)
        throw std::runtime_error{fmt::format("a priority lies between 0 and {}", nodepin::MAX_PRIORITY)};
    settings.priority = priority;
}

// An address without a port, or the reverse, would switch telemetry off without a word.
void ReadTelegraf(const PliConfigInstanceNode& value, HostSettings& settings) {
    settings.telegraf_address = value["address"].As<std::string>();
    settings.telegraf_port = value["port"].As<unsigned short>();
    if (!settings.telegraf_address.empty() && settings.telegraf_port != 0) return;
    throw std::runtime_error{"an address and a port other than 0 are needed"};
}

// A key of the node `host`. Reading its value throws std::runtime_error if it has no form that can be used.
struct HostKey {
    const char* key;
    void (*read)(const PliConfigInstanceNode& value, HostSettings& settings);
};
constexpr HostKey HOST_KEYS[] = {{"control_socket", ReadText<&HostSettings::control_socket>},
                                 {"shm_prefix", ReadShmPrefix},
                                 {"log_level", ReadLogLevel},
                                 {"log_file", ReadText<&HostSettings::log_file>},
                                 {"priority", ReadPriority},
                                 {"telegraf", ReadTelegraf}};

template <class T>
std::optional<T> FirstOf(const std::optional<T>& first, const std::optional<T>& second) {
    return first ? first : second;
}

}  // namespace

HostSettings ReadHostSettings(const PliConfigInstanceNode& top) {
    HostSettings settings;
    if (!top.Has("host")) return settings;
    const PliConfigInstanceNode host = top["host"];
    if (host.GetKind() == oru::configng::PliConfigNodeKind::UNDEFINED) return settings;
    for (const HostKey& entry : HOST_KEYS) {
        if (!host.Has(entry.key)) continue;
        const PliConfigInstanceNode value = host[entry.key];
        try {
            oru::configng::Attempt(value, [&] { entry.read(value, settings); });
        } catch (const std::runtime_error& error) {
            throw PliConfigError{fmt::format("{}: {}", value.GetPath(), error.what()), value.GetWhere()};
        }
    }
    return settings;
}

HostSettings Merge(const HostSettings& command_line, const HostSettings& document) {
    HostSettings merged = document;
    merged.control_socket = FirstOf(command_line.control_socket, document.control_socket);
    merged.shm_prefix = FirstOf(command_line.shm_prefix, document.shm_prefix);
    merged.log_level = FirstOf(command_line.log_level, document.log_level);
    merged.log_file = FirstOf(command_line.log_file, document.log_file);
    return merged;
}

log4cplus::LogLevel ParseLogLevel(const std::string& name) {
    static const std::map<std::string, log4cplus::LogLevel> LEVELS{{"trace", log4cplus::TRACE_LOG_LEVEL},
                                                                   {"debug", log4cplus::DEBUG_LOG_LEVEL},
                                                                   {"info", log4cplus::INFO_LOG_LEVEL},
                                                                   {"warn", log4cplus::WARN_LOG_LEVEL},
                                                                   {"error", log4cplus::ERROR_LOG_LEVEL}};
    const auto found = LEVELS.find(name);
    if (found != LEVELS.end()) return found->second;
    throw std::runtime_error{
        fmt::format("'{}' is no log level; there are trace, debug, info, warn and error", name)};
}

void VetShmPrefix(const std::string& prefix) {
    if (const auto fault = common::shmif::ShmIf::FaultOfPrefix(prefix)) throw std::runtime_error{*fault};
}

void VetLogFile(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC);
    if (fd != -1) {
        ::close(fd);
        return;
    }
    const auto folder = std::filesystem::absolute(path).parent_path();
    if (errno == ENOENT && ::access(folder.c_str(), W_OK | X_OK) == 0) return;
    throw std::runtime_error{fmt::format("log file {}: {}", path, std::system_category().message(errno))};
}

}  // namespace vosk::host
