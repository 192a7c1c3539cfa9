#include "faults.hpp"

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
        case FaultKind::BadStatus:
        case FaultKind::WrongDataType:
        case FaultKind::WrongWindow:
            return Harm::Certain;
    }
    throw std::runtime_error("Unknown enum value.");
}

FaultGenerator::FaultGenerator(const Scenario& scenario, Stream stream) {
    for (std::size_t i = 0; i < scenario.faults.size(); ++i) {
        if (scenario.faults[i].stream != stream) continue;
        std::seed_seq seed{scenario.seed, static_cast<std::uint64_t>(stream), std::uint64_t{i}};
        m_rules.push_back({scenario.faults[i], std::mt19937_64(seed)});
    }
}

std::optional<Fault> FaultGenerator::Next(Seconds time) {
    std::optional<Fault> fault;
    for (auto& [rule, random] : m_rules) {
        const double chance = std::uniform_real_distribution<double>{}(random);
        const std::uint64_t dice = random();
        if (fault || chance >= rule.share || time < rule.from || time >= rule.to) continue;
        fault = Fault{rule.kind, rule.delay, dice};
    }
    return fault;
}

}  // namespace vosk::rig
