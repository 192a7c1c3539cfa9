#include "judge/contentCheck.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

namespace vosk::rig {
namespace {

constexpr std::size_t BATCH = 4;

ConstM4Vector AsM4Vector(const std::vector<float>& vector) {
    return ConstM4Vector(vector.data(), defs::M4_CMD_SIZE);
}

float Rms(std::span<const float> values) {
    double sum = 0.0;
    for (float value : values) sum += static_cast<double>(value) * value;
    return static_cast<float>(std::sqrt(sum / static_cast<double>(values.size())));
}

}  // namespace

ContentCheck::ContentCheck(const Scenario& scenario, const ModalBasis& basis, SaturationLimits limits,
                           const AppendLog<CommandRecord>& commands, const ModeTimeline& modes)
    : m_send_delay(scenario.host.m4_send_delay),
      m_managed_modes(basis.modes),
      m_projection(basis),
      m_saturation(limits, scenario.host.delta_scaling, basis.modes, m_projection.Rounding()),
      m_wavefront(scenario.instrument, scenario.seed),
      m_commands(commands),
      m_modes(modes),
      m_reference(defs::M4_CMD_SIZE, 0.0F),
      m_zeroes(defs::M4_CMD_SIZE, 0.0F) {
    m_nowhere.actuators.assign(defs::M4_CMD_SIZE, 0.0);
    m_before.vector.assign(defs::M4_CMD_SIZE, 0.0F);
    m_before.positions = m_nowhere;
}

std::vector<CheckedSetpoint> ContentCheck::Check(std::span<const Item> items) {
    std::vector<CheckedSetpoint> results;
    while (!items.empty()) {
        std::vector<Work> works;
        for (const Item& item : items.first(std::min(BATCH, items.size()))) {
            const bool handover = HandoverBefore(item);
            // A handover takes up what was applied before it, so what came before must be done with, and
            // what follows depends on what it took up.
            if (handover && !works.empty()) break;
            works.push_back(Prepare(item, handover));
            if (handover) break;
        }
        Project(works, items);
        for (std::size_t i = 0; i < works.size(); ++i) {
            Compare(works[i], items[i]);
            Remember(works[i], items[i]);
            results.push_back(works[i].result);
        }
        items = items.subspan(works.size());
    }
    return results;
}

bool ContentCheck::HandoverBefore(const Item& item) const {
    return m_modes.HandoversAskedBy(item.record->arrived) > m_handovers;
}

std::optional<std::size_t> ContentCheck::FindCommand(time_point planned) const {
    const auto commands = m_commands.Entries();
    const time_point time_stamp = planned - m_send_delay;
    const auto found = std::lower_bound(
        commands.begin(), commands.end(), time_stamp,
        [](const CommandRecord& command, time_point time) { return command.time_stamp < time; });
    if (found == commands.end() || found->time_stamp != time_stamp) return std::nullopt;
    return static_cast<std::size_t>(found - commands.begin());
}

ContentCheck::Work ContentCheck::Prepare(const Item& item, bool after_handover) {
    Work work;
    work.result.setpoint = item.index;
    work.after_handover = after_handover;
    if (after_handover) m_handovers = m_modes.HandoversAskedBy(item.record->arrived);
    std::optional<std::size_t> command = FindCommand(item.record->planned);
    if (!command) {
        work.result.content = Content::NoCommand;
        return work;
    }
    const auto commands = m_commands.Entries();
    // An invalid command that overtakes a valid one leaves its time with the valid one's content.
    while (!commands[*command].valid) {
        work.result.retimed = true;
        if (*command == 0) {
            work.result.content = Content::NoCommand;
            return work;
        }
        --*command;
    }
    work.result.command = command;
    if (item.vector == nullptr) return work;

    std::vector<float> wire(defs::WAVEFRONT_CMD_SIZE);
    m_wavefront.Make(commands[*command].number, std::span<float, defs::WAVEFRONT_CMD_SIZE>(wire));
    for (const auto mode : m_modes.InForce(commands[*command].sent, item.record->arrived)) {
        if (!defs::IsInsDriven(mode)) continue;
        std::vector<float> assembled(defs::M4_CMD_SIZE);
        AssembleCommand(std::span<const float, defs::WAVEFRONT_CMD_SIZE>(wire), mode,
                        M4Vector(assembled.data(), defs::M4_CMD_SIZE));
        const auto add_candidate = [&](const std::vector<float>& reference, bool is_zero) {
            Candidate candidate{assembled, {}, is_zero};
            for (std::size_t i = 0; i < reference.size(); ++i) candidate.command[i] += reference[i];
            work.candidates.push_back(std::move(candidate));
        };
        if (!work.after_handover) {
            add_candidate(m_reference, false);
            continue;
        }
        add_candidate(m_zeroes, true);
        if (m_before.answered) add_candidate(m_before.vector, false);
    }
    work.result.setpoint_rms = Rms(std::span(*item.vector).first(m_managed_modes));
    if (!work.candidates.empty())
        work.result.command_rms = Rms(std::span(work.candidates.front().command).first(m_managed_modes));
    return work;
}

void ContentCheck::Project(std::vector<Work>& works, std::span<const Item> items) const {
    std::vector<std::span<const float>> vectors;
    for (std::size_t i = 0; i < works.size(); ++i) {
        if (items[i].vector == nullptr) continue;
        vectors.emplace_back(*items[i].vector);
        for (const Candidate& candidate : works[i].candidates) vectors.emplace_back(candidate.command);
    }
    std::vector<Positions> positions(vectors.size());
    m_projection.Project(vectors, positions);
    auto next = positions.begin();
    for (std::size_t i = 0; i < works.size(); ++i) {
        if (items[i].vector == nullptr) continue;
        works[i].setpoint_positions = std::move(*next++);
        for (Candidate& candidate : works[i].candidates) candidate.positions = std::move(*next++);
    }
}

std::optional<Limitation> ContentCheck::Fit(const Candidate& candidate, const Item& item,
                                            const std::vector<float>& applied,
                                            const Positions& applied_positions) const {
    const auto managed = [&](const std::vector<float>& vector) {
        return std::span(vector).first(m_managed_modes);
    };
    const double delta_length = DistanceOf(managed(candidate.command), managed(applied));
    const Limitations limitations = m_saturation.Limit(candidate.positions, applied_positions, delta_length);
    for (const Limitation& limitation : limitations.All())
        if (m_saturation.Matches(ConstM4Vector(*item.vector), AsM4Vector(candidate.command),
                                 AsM4Vector(applied), limitation))
            return limitation;
    return std::nullopt;
}

void ContentCheck::Compare(Work& work, const Item& item) {
    if (item.vector == nullptr || !work.result.command) return;
    work.result.content = Content::Wrong;
    // A setpoint that was made and never sent had no answer: only the very next sample ID can follow on one.
    const bool next_in_line = m_before.seen && item.record->sample_id == m_before.sample_id + 1;
    const bool may_follow_answer = m_before.answered && next_in_line;
    for (const Candidate& candidate : work.candidates) {
        std::optional<Limitation> if_taken;
        std::optional<Limitation> if_not;
        // At a handover the reference shape is what was applied last, so the two assumptions go together.
        if (may_follow_answer && !(work.after_handover && candidate.reference_is_zero))
            if_taken = Fit(candidate, item, m_before.vector, m_before.positions);
        if (!(work.after_handover && !candidate.reference_is_zero))
            if_not = Fit(candidate, item, m_zeroes, m_nowhere);
        if (!if_taken && !if_not) continue;

        work.result.content = Content::AsPredicted;
        work.result.velocity_limited = (if_taken ? *if_taken : *if_not).velocity_limited;
        work.result.gap_limited = (if_taken ? *if_taken : *if_not).gap_limited;
        if (may_follow_answer && if_taken.has_value() != if_not.has_value())
            work.result.prior_answer = if_taken ? PriorAnswer::Taken : PriorAnswer::NotTaken;
        if (work.after_handover) m_reference = candidate.reference_is_zero ? m_zeroes : m_before.vector;
        return;
    }
}

void ContentCheck::Remember(const Work& work, const Item& item) {
    m_before.sample_id = item.record->sample_id;
    m_before.seen = true;
    // Without its vector the next setpoint can't be checked against it, but against zero.
    m_before.answered = item.record->answer_sent != time_point{} &&
                        item.record->answer != AnswerFate::WrongSampleId && item.vector != nullptr;
    if (item.vector == nullptr) return;
    std::copy(item.vector->begin(), item.vector->end(), m_before.vector.begin());
    m_before.positions = work.setpoint_positions;
}

}  // namespace vosk::rig
