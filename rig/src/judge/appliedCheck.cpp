#include "judge/appliedCheck.hpp"

#include "faults.hpp"

#include <algorithm>
#include <cmath>

namespace vosk::rig {
namespace {

using common::shmif::GpaoVector;

constexpr double ROUNDING = 1e-5;
// A record may tell one of so many last answers.
constexpr std::size_t CANDIDATES = 10;

enum class Verdict { Right, Old, Wrong };

bool MustHaveCome(const SetpointRecord& setpoint) {
    return setpoint.answer == AnswerFate::Sent &&
           (!setpoint.answer_fault || HarmOf(*setpoint.answer_fault) == Harm::None);
}

bool Tells(const GpaoVector& told, const GpaoVector& applied) {
    return std::equal(told.begin(), told.end(), applied.begin(), [](float is, float should) {
        return std::abs(is - should) <= ROUNDING * std::max(1.0F, std::abs(should));
    });
}

Verdict VerdictOf(const AppliedFacts& facts, const GpaoRecord& record) {
    const auto& setpoints = facts.setpoints;
    auto next = std::partition_point(setpoints.begin(), setpoints.end(), [&](const SetpointRecord& setpoint) {
        return setpoint.arrived < record.in.timestamp;
    });
    bool newer_is_due = false;
    bool some_failed = next - setpoints.begin() < static_cast<std::ptrdiff_t>(CANDIDATES);
    for (std::size_t i = 0; i < CANDIDATES && next != setpoints.begin(); ++i) {
        --next;
        const auto& applied = facts.applied[static_cast<std::size_t>(next - setpoints.begin())];
        if (next->answer == AnswerFate::Sent && Tells(record.in.applied_m4_cmd, applied))
            return newer_is_due ? Verdict::Old : Verdict::Right;
        if (MustHaveCome(*next))
            newer_is_due = newer_is_due || next->answer_sent + facts.margin < record.in.timestamp;
        else
            some_failed = true;
    }
    // An answer that fails, or comes too late, stands for nothing applied.
    if (record.in.applied_m4_cmd != GpaoVector{}) return Verdict::Wrong;
    return some_failed ? Verdict::Right : Verdict::Old;
}

}  // namespace

HopAccount CheckApplied(const AppliedFacts& facts) {
    HopAccount hop{"M4's answer in gpao_in"};
    for (const GpaoRecord& record : facts.gpao) {
        ++hop.due;
        const Verdict verdict = VerdictOf(facts, record);
        ++(verdict == Verdict::Right ? hop.right : verdict == Verdict::Old ? hop.missing : hop.wrong);
    }
    return hop;
}

}  // namespace vosk::rig
