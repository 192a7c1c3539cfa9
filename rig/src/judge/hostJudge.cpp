#include "judge/hostJudge.hpp"

#include <fmt/format.h>

namespace vosk::rig {

std::vector<std::string> JudgeHost(const Scenario& scenario, const RunFacts& facts) {
    std::vector<std::string> violations;
    if (facts.trouble) violations.push_back(*facts.trouble);
    const HostCounts& counts = facts.status.counts;
    if (counts.failed_mode_changes > 0)
        violations.push_back(fmt::format("{} changes of mode failed for good", counts.failed_mode_changes));
    if (counts.clock_steps > 0)
        violations.push_back(fmt::format("{} times the clock was set in mid-run", counts.clock_steps));
    if (!facts.host_exit) {
        violations.emplace_back("the host did not end when it was told to");
        return violations;
    }
    if (*facts.host_exit != 0)
        violations.push_back(fmt::format("the host ended with code {}", *facts.host_exit));
    if (facts.stop_took && *facts.stop_took > scenario.expect.host_stop)
        violations.push_back(
            fmt::format("the host took more than {} ms to end", scenario.expect.host_stop.count()));
    return violations;
}

}  // namespace vosk::rig
