#include "host/hostStatus.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <stdexcept>

namespace vosk::rig {

HostStatus ParseHostStatus(const std::string& json) {
    try {
        const auto report = nlohmann::json::parse(json);
        HostStatus status;
        report.at("mode").get_to(status.mode);
        report.at("source").get_to(status.source);
        report.at("handover_state").get_to(status.handover_state);
        report.at("log_dropped").get_to(status.log_dropped);
        for (const auto& thread : report.at("threads"))
            if (thread.at("priority") > 0 && thread.at("priority_given") == 0) status.priority_refused = true;
        for (const auto& stream : report.at("streams"))
            status.streams[stream.at("name")] = {stream.at("samples"), stream.at("invalid"),
                                                 stream.at("lost"), stream.at("dropped_packets")};
        for (const auto& [name, count] : HOST_COUNTS)
            report.at("counts").at(name).get_to(status.counts.*count);
        for (const auto& event : report.at("events"))
            status.events.push_back(
                {time_point{std::chrono::nanoseconds{event.at("time_ns").get<std::int64_t>()}},
                 event.at("text")});
        return status;
    } catch (const nlohmann::json::exception& error) {
        throw std::runtime_error(fmt::format("the host's status can't be read: {}: {}", error.what(), json));
    }
}

}  // namespace vosk::rig
