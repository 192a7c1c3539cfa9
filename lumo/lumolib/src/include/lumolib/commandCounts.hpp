#pragma once

// What went wrong with commands and setpoints since the threads were started. Any thread may count and read;
// nothing is ordered by these counts: `count.fetch_add(1, std::memory_order_relaxed)`.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

namespace vosk::lumo {

struct alignas(64) CommandCounts {
    using Count = std::atomic<std::uint64_t>;

    Count late_setpoints{0};   // dropped by M4Output: their send time had passed, or the clock was set back
    Count missing_answers{0};  // cycles of AoTasks that ended without a usable answer of M4
    Count foreign_answers{0};  // answers of M4 to another setpoint
    Count kept_back_setpoints{0};  // not sent, a value was not finite
    Count overwritten_commands{
        0};  // valid wavefront commands that a later one replaced before AoTasks took them
    Count unfit_source_cycles{0};         // cycles of AoTasks with a source that does not fit the mode
    Count failed_mode_changes{0};         // that ended without a source for M4
    Count clock_steps{0};                 // of more than a second
    Count grid_points_skipped{0};         // by threads on a grid that fell far behind
    Count unusable_flowgraph_records{0};  // a value was not finite, or the time out of range
    Count dropped_beats{0};  // wavefront commands without samples of AoOutput: it was at work on another
};

// By name, as `status` shows them.
inline constexpr std::array<std::pair<std::string_view, CommandCounts::Count CommandCounts::*>, 11>
    COMMAND_COUNTS{{
        {"late_setpoints", &CommandCounts::late_setpoints},
        {"missing_answers", &CommandCounts::missing_answers},
        {"foreign_answers", &CommandCounts::foreign_answers},
        {"kept_back_setpoints", &CommandCounts::kept_back_setpoints},
        {"overwritten_commands", &CommandCounts::overwritten_commands},
        {"unfit_source_cycles", &CommandCounts::unfit_source_cycles},
        {"failed_mode_changes", &CommandCounts::failed_mode_changes},
        {"clock_steps", &CommandCounts::clock_steps},
        {"grid_points_skipped", &CommandCounts::grid_points_skipped},
        {"unusable_flowgraph_records", &CommandCounts::unusable_flowgraph_records},
        {"dropped_beats", &CommandCounts::dropped_beats},
    }};

using CommandFigures = std::array<std::uint64_t, COMMAND_COUNTS.size()>;  // in that order

inline CommandFigures Read(const CommandCounts& counts) {
    CommandFigures figures{};
    for (std::size_t i = 0; i < figures.size(); ++i) figures[i] = counts.*COMMAND_COUNTS[i].second;
    return figures;
}

}  // namespace vosk::lumo
