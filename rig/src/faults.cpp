#include "faults.hpp"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace vosk::rig {

Harm HarmOf(FaultKind kind) {
    switch (kind) {
        case FaultKind::Duplicate:
            return Harm::None;
        case FaultKind::Reorder:
        case FaultKind::Delay:
        case FaultKind::WrongSampleId:
            return Harm::Possible;
        case FaultKind::Drop:
        case FaultKind::Corrupt:
        case FaultKind::Truncate:
            return Harm::Certain;
    }
    throw std::runtime_error("Unknown enum value.");
}

FaultGenerator::FaultGenerator(const Scenario& scenario, Stream stream)
    : m_random(scenario.seed * 1000003U + static_cast<std::uint64_t>(stream)) {
    std::copy_if(scenario.faults.begin(), scenario.faults.end(), std::back_inserter(m_rules),
                 [stream](const FaultRule& rule) { return rule.stream == stream; });
}

std::optional<Fault> FaultGenerator::Next(Seconds time) {
    std::optional<Fault> fault;
    // Every rule throws its dice for every sample, so that one rule's window can't shift another's choices.
    for (const FaultRule& rule : m_rules) {
        const double chance = std::uniform_real_distribution<double>{}(m_random);
        const std::uint64_t dice = m_random();
        if (fault || chance >= rule.share || time < rule.from || time >= rule.to) continue;
        fault = Fault{rule.kind, rule.delay, dice};
    }
    return fault;
}

}  // namespace vosk::rig
