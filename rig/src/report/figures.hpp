#pragma once

// The figures of a run that the table and the report share: per-stream counts and periods, and how exactly
// setpoints left at their planned time. Worked out once, after the run.

#include "judge/accounting.hpp"
#include "peers/faults.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
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
    std::optional<std::uint64_t> lost;  // whole; of setpoints if none was on its way then
    std::uint64_t invalid = 0;          // as the receiver counts them
    double rate = 0.0;                  // hertz
    double jitter = 0.0;                // standard deviation of the period, microseconds
    bool counted = false;               // whether both ends keep a count
    std::string remark;
};

// Sent, received, lost, invalid, rate and jitter as text; "-" for what nobody counted.
using StreamCells = std::array<std::string, 6>;
StreamCells CellsOf(const StreamFigures& stream);

// Of one kind on one stream.
struct FaultFigures {
    Stream stream;
    FaultKind kind;
    std::uint64_t injected = 0;
    std::string reported;  // what the host counts of the stream, with its first kind
};

struct Figures {
    std::vector<StreamFigures> streams;
    std::vector<FaultFigures> faults;  // every kind that the scenario names
    Spread instrument;                 // actual less planned send time of the commands
    Spread lateness;                   // actual less planned send time of the setpoints
    Spread command_to_setpoint;
    Spread answer;  // from the arrival of a setpoint to its answer
    std::vector<std::pair<double, std::string>>
        history;  // seconds after the first command, and what happened
};

struct FeedbackCounts {
    std::uint64_t sent = 0;
    FaultCounts faults;
};

Figures MakeFigures(const Scenario& scenario, const RunFacts& facts, const Accounts& accounts,
                    const FeedbackCounts& feedback);

double MicrosecondsOf(std::chrono::nanoseconds duration);
double SecondsSince(const RunFacts& facts, time_point time);  // after the first command

}  // namespace vosk::rig
