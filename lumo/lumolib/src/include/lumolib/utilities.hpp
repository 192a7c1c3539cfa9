#pragma once

// How a constructor reads its keys from its configuration node. For set-up, on the controlling thread.
// A key is mandatory unless a default is given; the PliConfig... exceptions of a missing or unusable value
// pass. Under a PliConfigReview nothing here throws on a node that is a map: a fault is noted under its key,
// and the value is 0 or empty.

#include <oru/configng/pliConfig.hpp>
#include <oru/configng/pliConfigReview.hpp>
#include <pktwire/ipv4.hpp>

#include <chrono>
#include <concepts>
#include <string>
#include <utility>
#include <vector>

namespace vosk::lumo {

// Refuses a value that could be read but can't be used: logs the text at ERROR and throws it as
// std::runtime_error. Returns under a review.
void Refuse(const oru::configng::PliConfigInstanceNode& node, const std::string& key,
            const std::string& text);

// Warns of a value that makes a stream run otherwise than one may expect, or of a whole node: at WARN in the
// log, or to the review. Of a node, the log line begins with its place.
void WarnOf(const oru::configng::PliConfigInstanceNode& node, const std::string& key,
            const std::string& text);
void WarnOf(const oru::configng::PliConfigInstanceNode& node, const std::string& text);

// Whether the map has the key and a value stands behind it.
bool IsGiven(const oru::configng::PliConfigInstanceNode& map, const std::string& key);

template <class T>
T GetParam(const oru::configng::PliConfigInstanceNode& node, const std::string& key) {
    return node[key].As<T>();
}

template <class T>
T GetParamOr(const oru::configng::PliConfigInstanceNode& node, const std::string& key, T default_value) {
    return node.Has(key) ? node[key].As<T>() : std::move(default_value);
}

template <class T>
std::vector<T> GetVectorParam(const oru::configng::PliConfigInstanceNode& node, const std::string& key) {
    std::vector<T> values;
    const auto list = node[key];
    oru::configng::Attempt(list, [&] {
        for (const auto& element : list) values.push_back(element.template As<T>());
    });
    return values;
}

// std::runtime_error if the value is no address.
pktwire::Ipv4 GetIpv4Param(const oru::configng::PliConfigInstanceNode& node, const std::string& key,
                           pktwire::Ipv4 default_value);

template <class D>
concept ConfigDuration = std::same_as<D, std::chrono::nanoseconds> ||
    std::same_as<D, std::chrono::microseconds> || std::same_as<D, std::chrono::milliseconds>;

// An integer, one blank, a unit: "1500 ns", "500 us", "2 ms", rounded up to a whole count of D.
// std::invalid_argument if it has another form, std::out_of_range if it doesn't fit.
template <ConfigDuration D>
D ParseDuration(const std::string& text);

template <ConfigDuration D>
D GetTimeDurationParam(const oru::configng::PliConfigInstanceNode& node, const std::string& key) {
    const auto value = node[key];
    D duration{};
    oru::configng::Attempt(value, [&] { duration = ParseDuration<D>(value.template As<std::string>()); });
    return duration;
}

template <ConfigDuration D>
D GetTimeDurationParamOr(const oru::configng::PliConfigInstanceNode& node, const std::string& key,
                         D default_value) {
    return node.Has(key) ? GetTimeDurationParam<D>(node, key) : default_value;
}

// Far beyond any time of the loop, and far from where a time point plus the duration overflows.
constexpr std::chrono::hours MAX_DURATION{1};

// As GetTimeDurationParam, for durations that are added to times. Beyond MAX_DURATION to either side,
// "ERR: <path> is out of range" in the log and by std::runtime_error.
std::chrono::microseconds GetBoundedDurationParam(const oru::configng::PliConfigInstanceNode& node,
                                                  const std::string& key);
std::chrono::microseconds GetBoundedDurationParamOr(const oru::configng::PliConfigInstanceNode& node,
                                                    const std::string& key,
                                                    std::chrono::microseconds default_value);

// The same for durations that can't run backwards: "ERR: <path> must not be negative".
std::chrono::microseconds GetNonNegativeDurationParam(const oru::configng::PliConfigInstanceNode& node,
                                                      const std::string& key);
std::chrono::microseconds GetNonNegativeDurationParamOr(const oru::configng::PliConfigInstanceNode& node,
                                                        const std::string& key,
                                                        std::chrono::microseconds default_value);

// `update_interval` of a thread on a grid; "ERR: <path> must be positive" if it is not.
std::chrono::milliseconds GetUpdateInterval(const oru::configng::PliConfigInstanceNode& node);

}  // namespace vosk::lumo
