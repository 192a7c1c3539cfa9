#pragma once

// Figures of streams, faults and times, as every peer gives them. Worked out after the run.

#include "faults.hpp"
#include "runFacts.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vosk::rig {

// Microseconds.
struct Spread {
    double min = 0.0;
    double p50 = 0.0;
    double p99 = 0.0;
    double max = 0.0;
};
Spread SpreadOf(std::vector<double> values);

// Counts are of the moment at which the host was last asked for its own.
struct StreamFigures {
    std::string name;
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
    std::optional<std::uint64_t> lost;  // whole; of what the host sends if none was on its way then
    std::uint64_t invalid = 0;          // as the receiver counts them
    double rate = 0.0;                  // hertz
    double jitter = 0.0;                // standard deviation of the period, microseconds
    bool counted = false;               // whether both ends keep a count
    std::string remark;
};

// Sent, received, lost, invalid, rate and jitter as text; "-" for what nobody counted.
using StreamCells = std::array<std::string, 6>;
StreamCells CellsOf(const StreamFigures& stream);

// A stream to the host, which counts it as `host_name`, with the times at which its samples left.
StreamFigures FiguresOfSent(const std::string& name, const std::vector<time_point>& sent,
                            std::chrono::nanoseconds period, const RunFacts& facts,
                            const std::string& host_name);
// A stream from the host, with the times at which its samples arrived; `broken` ones arrived in parts.
StreamFigures FiguresOfReceived(const std::string& name, const std::vector<time_point>& arrived,
                                std::chrono::nanoseconds period, const RunFacts& facts,
                                const std::string& host_name, std::uint64_t broken);

// Of one kind on one stream.
struct FaultFigures {
    Stream stream;
    FaultKind kind;
    std::uint64_t injected = 0;
    std::string reported;  // what the host counts of the stream, with its first kind
};
// Every kind that the scenario names for the stream.
std::vector<FaultFigures> FiguresOfFaults(const Scenario& scenario, Stream stream, const FaultCounts& counts,
                                          std::string reported);
// What the host counts of a stream that it receives; empty if it doesn't know the stream.
std::string HostCountsOf(const RunFacts& facts, const std::string& host_name);

}  // namespace vosk::rig
