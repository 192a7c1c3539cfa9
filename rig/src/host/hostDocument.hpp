#pragma once

// The host's configuration document, to which each peer adds what the host must know of it.

#include "scenario.hpp"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vosk::rig {

class HostDocument {
public:
    explicit HostDocument(const Scenario& scenario) : m_name(scenario.name), m_host(scenario.host) {}

    // One object of the host: the next element of the list `group`.`key`. `value`: a YAML map, in one line or
    // in several.
    void Add(const std::string& group, const std::string& key, const std::string& value);
    // A stream that the host receives.
    void AddInput(const std::string& group, const std::string& key, std::uint16_t port, std::uint32_t topic);

    // A stream that the host sends on a grid.
    void AddOutput(const std::string& group, const std::string& key, std::uint16_t port, std::uint32_t topic,
                   std::chrono::microseconds interval, std::chrono::microseconds offset);

    std::string Text() const;

private:
    std::string m_name;
    HostSettings m_host;
    // The text below each key of each group.
    std::map<std::string, std::map<std::string, std::string>> m_groups;
};

}  // namespace vosk::rig
