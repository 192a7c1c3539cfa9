#include "report/figures.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace vosk::rig {
namespace {

// Rate and jitter of a stream from the times of its samples. Gaps in which nothing was due are left out; the
// shortest gap that a missing sample leaves is two periods.
void MeasurePeriods(StreamFigures& stream, const std::vector<time_point>& times,
                    std::chrono::nanoseconds nominal) {
    const double longest_us = 1.5 * MicrosecondsOf(nominal);
    double sum = 0.0;
    double squares = 0.0;
    std::size_t count = 0;
    for (std::size_t i = 1; i < times.size(); ++i) {
        const double period = MicrosecondsOf(times[i] - times[i - 1]);
        if (period > longest_us) continue;
        sum += period;
        squares += period * period;
        ++count;
    }
    if (count == 0 || sum <= 0.0) return;
    const double mean = sum / static_cast<double>(count);
    stream.rate = 1e6 / mean;
    stream.jitter = std::sqrt(std::max(squares / static_cast<double>(count) - mean * mean, 0.0));
}

std::uint64_t CountUntil(const std::vector<time_point>& times, time_point end) {
    return static_cast<std::uint64_t>(
        std::count_if(times.begin(), times.end(), [end](time_point time) { return time <= end; }));
}

constexpr const char* IN_MID_FLOW = "counted in mid-flow, with a sample or two on their way";

}  // namespace

StreamFigures FiguresOfSent(const std::string& name, const std::vector<time_point>& sent,
                            std::chrono::nanoseconds period, const RunFacts& facts,
                            const std::string& host_name) {
    StreamFigures stream;
    stream.name = name;
    stream.sent = CountUntil(sent, facts.status_time);
    MeasurePeriods(stream, sent, period);
    if (const HostStream* host = facts.FindStream(host_name)) {
        stream.counted = true;
        stream.received = host->samples;
        stream.invalid = host->invalid;
        stream.lost = host->lost;
        if (!facts.at_rest) stream.remark = IN_MID_FLOW;
    }
    return stream;
}

StreamFigures FiguresOfReceived(const std::string& name, const std::vector<time_point>& arrived,
                                std::chrono::nanoseconds period, const RunFacts& facts,
                                const std::string& host_name, std::uint64_t broken) {
    StreamFigures stream;
    stream.name = name;
    stream.received = CountUntil(arrived, facts.status_time);
    stream.invalid = broken;
    stream.remark = "sent: as the host counts";
    MeasurePeriods(stream, arrived, period);
    if (const HostStream* host = facts.FindStream(host_name)) {
        stream.counted = true;
        stream.sent = host->samples;
        if (facts.at_rest)
            stream.lost = stream.sent - std::min(stream.sent, stream.received + broken);
        else
            stream.remark = IN_MID_FLOW;
    }
    return stream;
}

std::string HostCountsOf(const RunFacts& facts, const std::string& host_name) {
    const HostStream* host = facts.FindStream(host_name);
    if (host == nullptr) return {};
    return fmt::format("host: {} invalid, {} lost, {} packets dropped by the kernel", host->invalid,
                       host->lost, host->dropped_packets);
}

std::vector<FaultFigures> FiguresOfFaults(const Scenario& scenario, Stream stream, const FaultCounts& counts,
                                          std::string reported) {
    std::vector<FaultFigures> faults;
    for (std::size_t i = 0; i < FAULT_KINDS; ++i) {
        const auto kind = static_cast<FaultKind>(i);
        const auto names_it = [&](const FaultRule& rule) {
            return rule.stream == stream && rule.kind == kind;
        };
        if (std::any_of(scenario.faults.begin(), scenario.faults.end(), names_it))
            faults.push_back({stream, kind, counts.Of(kind), std::exchange(reported, {})});
    }
    return faults;
}

StreamCells CellsOf(const StreamFigures& stream) {
    const auto if_known = [](bool known, const std::string& text) { return known ? text : std::string("-"); };
    return {fmt::to_string(stream.sent),
            if_known(stream.counted, fmt::to_string(stream.received)),
            stream.lost ? fmt::to_string(*stream.lost) : "-",
            if_known(stream.counted, fmt::to_string(stream.invalid)),
            if_known(stream.rate > 0.0, fmt::format("{:.2f}", stream.rate)),
            if_known(stream.rate > 0.0, fmt::format("{:.1f}", stream.jitter))};
}

Spread SpreadOf(std::vector<double> values) {
    if (values.empty()) return {};
    std::sort(values.begin(), values.end());
    const auto at = [&](double share) {
        return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1))];
    };
    return {values.front(), at(0.5), at(0.99), values.back()};
}

}  // namespace vosk::rig
