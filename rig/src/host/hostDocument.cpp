#include "host/hostDocument.hpp"

#include <fmt/format.h>

namespace vosk::rig {

void HostDocument::Add(const std::string& group, const std::string& key, const std::string& value) {
    std::string& text = m_groups[group][key];
    text += "      - ";
    for (const char letter : value) text += letter == '\n' ? "\n        " : std::string(1, letter);
    text += "\n";
}

void HostDocument::AddInput(const std::string& group, const std::string& key, std::uint16_t port,
                            std::uint32_t topic) {
    Add(group, key,
        fmt::format("{{busy: {}, timeout: \"50 ms\", listen_ip: 127.0.0.1, listen_udp: {}, iface_name: lo, "
                    "rxbuf_size: 4194304, qudex_topic: {}}}",
                    m_host.busy, port, topic));
}

void HostDocument::AddOutput(const std::string& group, const std::string& key, std::uint16_t port,
                             std::uint32_t topic, std::chrono::microseconds interval,
                             std::chrono::microseconds offset) {
    Add(group, key,
        fmt::format("{{busy: {}, send_interval: {} us, send_offset: {} us, ip_dest: 127.0.0.1, "
                    "udp_dest: {}, qudex_topic: {}}}",
                    m_host.busy, interval.count(), offset.count(), port, topic));
}

std::string HostDocument::Text() const {
    std::string text =
        fmt::format("# Written by vosk-rig for the scenario '{}'.\nhost: {{priority: {}}}\ncfg:\n", m_name,
                    m_host.priority);
    for (const auto& [group, keys] : m_groups) {
        text += fmt::format("  {}:\n", group);
        for (const auto& [key, elements] : keys) text += fmt::format("    {}:\n{}", key, elements);
    }
    return text;
}

}  // namespace vosk::rig
