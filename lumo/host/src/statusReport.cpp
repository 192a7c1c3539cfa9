#include "statusReport.hpp"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

namespace vosk::host {

namespace {

// In the order of insertion, with numbers as short as a float allows. It writes null for NaN and infinity.
using Json = nlohmann::basic_json<nlohmann::ordered_map, std::vector, std::string, bool, std::int64_t,
                                  std::uint64_t, float>;

Json JsonTime(lumo::time_point time) {
    return time.time_since_epoch().count();
}

Json JsonPair(const defs::FloatVectorTT& value) {
    return Json::array({value.tip, value.tilt});
}

template <class Items, class Form>
Json JsonList(const Items& items, Form form) {
    Json list = Json::array();
    for (const auto& item : items) list.push_back(form(item));
    return list;
}

Json JsonPeriod(const lumo::StreamTopic& stream, float value) {
    return stream.valid ? Json(value) : Json();
}

// Samples with one time stamp have a period, 0, but neither a longest nor a shortest one.
Json JsonExtreme(const lumo::StreamTopic& stream, float value) {
    return stream.period_max < stream.period_min ? Json() : JsonPeriod(stream, value);
}

Json MachineJson(const Machine& machine) {
    return {{"version", machine.version},        {"memory", machine.memory},
            {"priority", machine.priority},      {"tai_offset", machine.tai_offset},
            {"preemption", machine.preemption},  {"clock_source", machine.clock_source},
            {"blas_kernel", machine.blas_kernel}};
}

Json ThreadJson(const ThreadState& thread) {
    return {{"name", thread.name},
            {"cpu", thread.placement.cpu},
            {"busy", thread.placement.busy},
            {"priority", thread.placement.priority},
            {"priority_given", thread.placement.priority_given}};
}

Json StreamJson(const lumo::StreamTopic& stream) {
    return {{"name", common::shmif::GetStreamName(lumo::DataStreamIdentifier{stream.stream_id})},
            {"valid", stream.valid},
            {"samples", stream.sample_count},
            {"invalid", stream.invalid_count},
            {"lost", stream.losses.lost},
            {"dropped_packets", stream.losses.dropped_packets},
            {"stale_packets", stream.losses.stale_packets},
            {"period", JsonPeriod(stream, stream.period)},
            {"period_min", JsonExtreme(stream, stream.period_min)},
            {"period_max", JsonExtreme(stream, stream.period_max)},
            {"rate", JsonPeriod(stream, stream.rate)}};
}

Json CentroidJson(const std::optional<defs::Slope>& slope) {
    if (!slope) return {};
    return {{"flux", slope->flux}, {"x", slope->x}, {"y", slope->y}};
}

Json CameraJson(const CameraState& camera) {
    const auto microseconds = [&camera](std::chrono::nanoseconds time) {
        return camera.frames.processed == 0 ? Json() : Json(static_cast<float>(time.count()) / 1000.0F);
    };
    return {{"name", to_string(camera.camera)},
            {"rate", JsonPeriod(camera.stream, camera.stream.rate)},
            {"frames", camera.stream.sample_count},
            {"invalid", camera.stream.invalid_count},
            {"late", camera.late},
            {"processed", camera.frames.processed},
            {"processing_p50_us", microseconds(camera.frames.p50)},
            {"processing_p99_us", microseconds(camera.frames.p99)},
            {"centroid", CentroidJson(camera.frames.centroid)}};
}

Json CountsJson(const lumo::CommandFigures& counts) {
    Json json;
    for (std::size_t i = 0; i < counts.size(); ++i) json[lumo::COMMAND_COUNTS[i].first] = counts[i];
    return json;
}

Json CommandsJson(const lumo::PerformanceTopic& commands) {
    return {{"gp_time_ns", JsonList(commands.gp_cmd_time, JsonTime)},
            {"gp", JsonList(commands.gp_cmd, JsonPair)},
            {"gp_valid", commands.gp_cmd_valid},
            {"ms_time_ns", JsonTime(commands.ms_fs_tt_time)},
            {"ms", JsonPair(commands.ms_fs_tt)},
            {"u4_time_ns", JsonTime(commands.u4_fs_tt_time)},
            {"u4", JsonPair(commands.u4_fs_tt)},
            {"u5_time_ns", JsonTime(commands.u5_fs_tt_time)},
            {"u5", JsonPair(commands.u5_fs_tt)},
            {"u5_m5", JsonPair(commands.u5_m5_tt)}};
}

Json WavefrontJson(const lumo::WavefrontMetricData& wavefront) {
    return {{"time_ns", JsonTime(wavefront.wavefront_time)},
            {"valid", wavefront.wavefront_valid},
            {"centroid_error", JsonPair(wavefront.centroid_error)},
            {"tip_tilt_error", JsonPair(wavefront.tip_tilt_error)}};
}

Json FieldStabilisationJson(const lumo::FSTelemetryData& fs) {
    return {{"time_ns", JsonTime(fs.fs_time)},    {"output_done", fs.fs_output_done},
            {"input_cycles", fs.fs_input_cycles}, {"output_cycles", fs.fs_output_cycles},
            {"input_counts", fs.fs_input_counts}, {"output_count", fs.fs_output_count}};
}

Json EventJson(const Event& event) {
    return {{"time_ns", JsonTime(event.time)}, {"text", event.text}};
}

}  // namespace

std::string ToJson(const Status& status) {
    const lumo::StateTopic& record = status.record;
    const Json json{{"mode", to_string(status.control.mode)},
                    {"camera", to_string(status.control.camera)},
                    {"source", to_string(status.control.source)},
                    {"handover_state", status.control.handover_state},
                    {"handover_running", status.handover_running},
                    {"mode_to_be_set_again", status.mode_to_be_set_again},
                    {"gp_centering", status.gp_centering},
                    {"mode_change_in_progress", record.mode_change_in_progress},
                    {"changed", record.changed},
                    {"changed_time_ns", JsonTime(record.time)},
                    {"primary_gp", record.primary_gp},
                    {"m1_offload", record.m1_offload},
                    {"guiding", record.guiding},
                    {"machine", MachineJson(status.machine)},
                    {"threads", JsonList(status.threads, ThreadJson)},
                    {"threads_ended", status.threads_ended},
                    {"streams", JsonList(status.streams, StreamJson)},
                    {"cameras", JsonList(status.cameras, CameraJson)},
                    {"counts", CountsJson(status.counts)},
                    {"commands", CommandsJson(status.commands)},
                    {"wavefront", WavefrontJson(status.wavefront)},
                    {"fs", FieldStabilisationJson(status.field_stabilisation)},
                    {"log_dropped", status.log_dropped},
                    {"events", JsonList(status.events, EventJson)}};
    constexpr bool ASCII_ONLY = true;
    return json.dump(-1, ' ', ASCII_ONLY, Json::error_handler_t::replace);
}

}  // namespace vosk::host
