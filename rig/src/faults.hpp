#pragma once

// Decides which samples of a stream meet with an accident on their way, and which one. Seeded: the same
// scenario harms the same samples in every run. One generator a stream, used by the thread that sends it.

#include "scenario.hpp"

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <random>
#include <vector>

namespace vosk::rig {

struct Fault {
    FaultKind kind = FaultKind::Drop;
    std::chrono::microseconds delay{0};
    std::uint64_t dice = 0;  // for choices within the sample: which packet, which byte
};

// Whether the host, receiving correctly, can still use a sample that met with this fault. For a late,
// shuffled or misnumbered one that depends on its receiver's patience, so both are allowed.
enum class Harm { None, Possible, Certain };
Harm HarmOf(FaultKind kind);

// How many samples of a stream met with which fault.
struct FaultCounts {
    std::array<std::uint64_t, FAULT_KINDS> by_kind{};

    void Add(std::optional<FaultKind> kind) {
        if (kind) ++by_kind[static_cast<std::size_t>(*kind)];
    }
    std::uint64_t Of(FaultKind kind) const { return by_kind[static_cast<std::size_t>(kind)]; }
};

class FaultGenerator {
public:
    FaultGenerator(const Scenario& scenario, Stream stream);

    // Once for each sample, in order; `time` is its time after the start of the run.
    std::optional<Fault> Next(Seconds time);

private:
    // Dice of its own, thrown for every sample, so that no rule can shift another's choices.
    struct RuleWithDice {
        FaultRule rule;
        std::mt19937_64 random;
    };
    std::vector<RuleWithDice> m_rules;  // of this stream
};

}  // namespace vosk::rig
