#include "host/hostStatus.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <stdexcept>

namespace vosk::rig {

namespace {

HostCamera CameraOf(const nlohmann::json& json) {
    const auto microseconds = [&](const char* name) {
        return json.at(name).is_null() ? 0.0 : json.at(name).get<double>();
    };
    HostCamera camera{json.at("late"), json.at("processed"), microseconds("processing_p50_us"),
                      microseconds("processing_p99_us"), std::nullopt};
    const auto& centroid = json.at("centroid");
    const auto is_number = [&](const char* name) { return centroid.at(name).is_number(); };
    if (centroid.is_object() && is_number("flux") && is_number("x") && is_number("y"))
        camera.centroid = {centroid.at("flux"), centroid.at("x"), centroid.at("y")};
    return camera;
}

}  // namespace

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
                                                 stream.at("lost"), stream.at("dropped_packets"),
                                                 stream.at("stale_packets")};
        for (const auto& camera : report.at("cameras")) status.cameras[camera.at("name")] = CameraOf(camera);
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
