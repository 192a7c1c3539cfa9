#include "hostSettings.hpp"

#include <fmt/format.h>

#include <map>
#include <stdexcept>

namespace vosk::host {

using oru::configng::PliConfigInstanceNode;

namespace {

std::optional<std::string> ReadText(const PliConfigInstanceNode& node, const char* key) {
    if (!node.Has(key)) return std::nullopt;
    return node[key].As<std::string>();
}

template <class T>
std::optional<T> FirstOf(const std::optional<T>& first, const std::optional<T>& second) {
    return first ? first : second;
}

}  // namespace

HostSettings ReadHostSettings(const PliConfigInstanceNode& top) {
    HostSettings settings;
    if (!top.Has("host")) return settings;
    const PliConfigInstanceNode node = top["host"];
    settings.control_socket = ReadText(node, "control_socket");
    settings.shm_prefix = ReadText(node, "shm_prefix");
    settings.log_level = ReadText(node, "log_level");
    settings.log_file = ReadText(node, "log_file");
    if (settings.log_level) ParseLogLevel(*settings.log_level);
    if (node.Has("telegraf")) {
        settings.telegraf_address = node["telegraf"]["address"].As<std::string>();
        settings.telegraf_port = node["telegraf"]["port"].As<unsigned short>();
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

}  // namespace vosk::host
