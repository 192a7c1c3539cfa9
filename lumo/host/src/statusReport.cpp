#include "statusReport.hpp"

#include <fmt/format.h>

#include <cmath>
#include <cstdint>

namespace vosk::host {

namespace {

std::string JsonText(std::string_view text) {
    std::string json;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            json += '\\';
            json += c;
        } else if (byte < 0x20 || byte >= 0x7f) {
            json += fmt::format("\\u{:04x}", byte);
        } else {
            json += c;
        }
    }
    return fmt::format("\"{}\"", json);
}

std::string JsonNumber(float value) {
    return std::isfinite(value) ? fmt::format("{}", value) : "null";
}

std::int64_t JsonTime(lumo::time_point time) {
    return time.time_since_epoch().count();
}

std::string JsonPair(const defs::FloatVectorTT& value) {
    return fmt::format("[{},{}]", JsonNumber(value.tip), JsonNumber(value.tilt));
}

std::string JsonPeriod(const lumo::StreamTopic& stream, float value) {
    return stream.valid ? JsonNumber(value) : "null";
}

// Samples with one time stamp have a period, 0, but neither a longest nor a shortest one.
std::string JsonExtreme(const lumo::StreamTopic& stream, float value) {
    return stream.period_max < stream.period_min ? "null" : JsonPeriod(stream, value);
}

std::string StreamJson(const lumo::StreamTopic& stream) {
    const auto id = static_cast<lumo::DataStreamIdentifier>(stream.stream_id);
    return fmt::format(
        R"({{"name":{},"valid":{},"samples":{},"invalid":{},"period":{},"period_min":{},"period_max":{},"rate":{}}})",
        JsonText(common::shmif::GetStreamName(id)), stream.valid, stream.sample_count, stream.invalid_count,
        JsonPeriod(stream, stream.period), JsonExtreme(stream, stream.period_min),
        JsonExtreme(stream, stream.period_max), JsonPeriod(stream, stream.rate));
}

std::string EventJson(const Event& event) {
    return fmt::format(R"({{"time_ns":{},"text":{}}})", JsonTime(event.time), JsonText(event.text));
}

template <class Items, class Form>
std::string JsonList(const Items& items, Form form) {
    std::string list;
    for (const auto& item : items) {
        list += list.empty() ? '[' : ',';
        list += form(item);
    }
    return list.empty() ? "[]" : list + ']';
}

std::string RecordJson(const lumo::StateTopic& record) {
    return fmt::format(
        R"("mode_change_in_progress":{},"changed":{},"changed_time_ns":{},"primary_gp":{},"m1_offload":{},)"
        R"("guiding":{})",
        record.mode_change_in_progress, record.changed, JsonTime(record.time), record.primary_gp,
        record.m1_offload, record.guiding);
}

std::string CommandsJson(const lumo::PerformanceTopic& commands) {
    return fmt::format(
        R"({{"gp_time_ns":{},"gp":{},"gp_valid":{},"ms_time_ns":{},"ms":{},"u4_time_ns":{},"u4":{},)"
        R"("u5_time_ns":{},"u5":{},"u5_m5":{}}})",
        JsonList(commands.gp_cmd_time, [](auto time) { return std::to_string(JsonTime(time)); }),
        JsonList(commands.gp_cmd, JsonPair), commands.gp_cmd_valid, JsonTime(commands.ms_fs_tt_time),
        JsonPair(commands.ms_fs_tt), JsonTime(commands.u4_fs_tt_time), JsonPair(commands.u4_fs_tt),
        JsonTime(commands.u5_fs_tt_time), JsonPair(commands.u5_fs_tt), JsonPair(commands.u5_m5_tt));
}

std::string WavefrontJson(const lumo::WavefrontMetricData& wavefront) {
    return fmt::format(R"({{"time_ns":{},"valid":{},"centroid_error":{},"tip_tilt_error":{}}})",
                       JsonTime(wavefront.wavefront_time), wavefront.wavefront_valid,
                       JsonPair(wavefront.centroid_error), JsonPair(wavefront.tip_tilt_error));
}

std::string FieldStabilisationJson(const lumo::FSTelemetryData& fs) {
    return fmt::format(
        R"({{"time_ns":{},"output_done":{},"input_cycles":{},"output_cycles":{},"input_counts":{},)"
        R"("output_count":{}}})",
        JsonTime(fs.fs_time), fs.fs_output_done, fs.fs_input_cycles, fs.fs_output_cycles,
        JsonList(fs.fs_input_counts, [](auto count) { return std::to_string(count); }), fs.fs_output_count);
}

}  // namespace

std::string ToJson(const Status& status) {
    return fmt::format(
        R"({{"mode":{},"camera":{},"source":{},"handover_state":{},"handover_running":{},"gp_centering":{},{},)"
        R"("threads_ended":{},"streams":{},"commands":{},"wavefront":{},"fs":{},"log_dropped":{},"events":{}}})",
        JsonText(to_string(status.control.mode)), JsonText(to_string(status.control.camera)),
        JsonText(to_string(status.control.source)), status.control.handover_state, status.handover_running,
        status.gp_centering, RecordJson(status.record), JsonList(status.threads_ended, JsonText),
        JsonList(status.streams, StreamJson), CommandsJson(status.commands), WavefrontJson(status.wavefront),
        FieldStabilisationJson(status.field_stabilisation), status.log_dropped,
        JsonList(status.events, EventJson));
}

}  // namespace vosk::host
