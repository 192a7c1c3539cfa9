#include "statusReport.hpp"

#include <fmt/format.h>

#include <cmath>

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

std::string JsonPeriod(const lumo::StreamTopic& stream, float value) {
    return stream.valid ? JsonNumber(value) : "null";
}

std::string StreamJson(const lumo::StreamTopic& stream) {
    const auto id = static_cast<lumo::DataStreamIdentifier>(stream.stream_id);
    return fmt::format(
        R"({{"name":{},"valid":{},"samples":{},"invalid":{},"period":{},"period_min":{},"period_max":{},"rate":{}}})",
        JsonText(common::shmif::GetStreamName(id)), stream.valid, stream.sample_count, stream.invalid_count,
        JsonPeriod(stream, stream.period), JsonPeriod(stream, stream.period_min),
        JsonPeriod(stream, stream.period_max), JsonPeriod(stream, stream.rate));
}

std::string EventJson(const Event& event) {
    return fmt::format(R"({{"time_ns":{},"text":{}}})", event.time.time_since_epoch().count(),
                       JsonText(event.text));
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

}  // namespace

std::string ToJson(const Status& status) {
    return fmt::format(
        R"({{"mode":{},"camera":{},"source":{},"handover_state":{},"mode_change_in_progress":{},"streams":{},)"
        R"("log_dropped":{},"events":{}}})",
        JsonText(to_string(status.control.mode)), JsonText(to_string(status.control.camera)),
        JsonText(to_string(status.control.source)), status.control.handover_state,
        status.control.mode_change_in_progress, JsonList(status.streams, StreamJson), status.log_dropped,
        JsonList(status.events, EventJson));
}

}  // namespace vosk::host
