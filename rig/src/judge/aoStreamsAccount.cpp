#include "judge/aoStreamsAccount.hpp"

#include "faults.hpp"
#include "judge/accounting.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <utility>

namespace vosk::rig {
namespace {

using std::chrono::nanoseconds;
using ExtInfo = defs::AoM4SetpointApplied::ExtInfo;

// How many samples back the host's data may be taken from; an age beyond the margin is judged apart.
constexpr std::size_t CANDIDATES = 32;
constexpr std::uint16_t SOURCE_BITS = 0xE00;
constexpr std::uint16_t KNOWN_BITS = SOURCE_BITS | ExtInfo::APPLIED_TIME_GIVEN;

enum class Verdict { Right, Old, Wrong };

std::uint16_t SourceOf(defs::VoskControlMode mode) {
    switch (mode) {
        case defs::VoskControlMode::TEL_DRIVEN:
        case defs::VoskControlMode::TEL_DRIVEN_WITH_GPAO_TT:
            return 0x200;
        case defs::VoskControlMode::INS_DRIVEN_CASCADE:
            return 0x400;
        case defs::VoskControlMode::INS_DRIVEN_SEQUENTIAL:
            return 0x800;
        default:
            return 0;  // nobody drives M4 by commands
    }
}

bool IsUnharmed(const std::optional<FaultKind>& fault) {
    return !fault || HarmOf(*fault) == Harm::None;
}

class Books {
public:
    Books(const Scenario& scenario, const AoStreamsFacts& facts)
        : m_scenario(scenario), m_settings(*scenario.ao_streams), m_facts(facts) {
        for (const ModeTimeline::Change& change : facts.modes)
            m_modes.Complete(m_modes.Ask(change.mode, change.asked), change.done);
        for (std::size_t i = 0; i < facts.setpoints.size(); ++i)
            if (facts.setpoints[i].answer_sent != time_point{}) m_answers[facts.setpoints[i].answer_sent] = i;
        for (auto& present : m_present) present.resize(facts.commands.size());
    }

    AoStreamsAccounts Make() {
        for (std::size_t i = 0; i < AO_STREAMS; ++i) JudgeSamples(i);
        CountBeats();
        Judge();
        return std::move(m_accounts);
    }

private:
    void JudgeSamples(std::size_t stream) {
        AoStreamAccount& account = m_accounts.streams[stream];
        for (const AoSample& sample : m_facts.samples[stream]) {
            const auto command = FindCommand(sample.stamped - m_settings.delays[stream]);
            const nanoseconds late = sample.arrived - sample.stamped;
            account.delays.push_back(MicrosecondsOf(late));
            const Verdict content = JudgeContent(stream, sample);
            if (!command || m_facts.commands[*command].sample_id != sample.id ||
                m_present[stream][*command] != nullptr || late < -nanoseconds{CLOCK_DIFFERENCE} ||
                !IsOf(sample, m_facts.commands[*command], stream) || content == Verdict::Wrong)
                ++account.wrong;
            else if (late > m_settings.margin)
                ++account.late;
            else
                ++(content == Verdict::Old ? account.old : account.right);
            if (command) m_present[stream][*command] = &sample;
        }
    }

    std::optional<std::size_t> FindCommand(time_point time_stamp) const {
        const auto found = std::lower_bound(
            m_facts.commands.begin(), m_facts.commands.end(), time_stamp,
            [](const CommandRecord& command, time_point time) { return command.time_stamp < time; });
        if (found == m_facts.commands.end() || found->time_stamp != time_stamp) return std::nullopt;
        return static_cast<std::size_t>(found - m_facts.commands.begin());
    }

    // Two of the streams tell when the host had the command.
    static bool IsOf(const AoSample& sample, const CommandRecord& command, std::size_t stream) {
        const auto kind = static_cast<AoStream>(stream);
        if (kind != AoStream::M5Position && kind != AoStream::SetpointApplied) return true;
        return sample.receive_time >= command.sent - CLOCK_DIFFERENCE &&
               sample.receive_time <= sample.arrived + CLOCK_DIFFERENCE;
    }

    Verdict JudgeContent(std::size_t stream, const AoSample& sample) {
        switch (static_cast<AoStream>(stream)) {
            case AoStream::M5Position:
                return JudgeM5(sample);
            case AoStream::FieldStabilisation:
                return JudgeU4(sample);
            case AoStream::SetpointApplied:
                return JudgeApplied(sample);
            case AoStream::Sensors:
                return JudgeSensors(sample);
        }
        return Verdict::Wrong;
    }

    // Whether the host must have had data of this age when it sent the sample.
    bool IsDue(time_point data, const AoSample& sample) const {
        return data + m_settings.margin <= sample.stamped;
    }
    static Verdict OldIf(bool old) { return old ? Verdict::Old : Verdict::Right; }

    Verdict JudgeM5(const AoSample& sample) const {
        const auto positions = m_facts.m5_positions;
        if (sample.data_time == time_point{}) {
            if (sample.status != 0 || sample.digest != Digest{}) return Verdict::Wrong;
            return OldIf(!positions.empty() && IsDue(positions.front().moved, sample));
        }
        const auto found =
            std::lower_bound(positions.begin(), positions.end(), sample.data_time,
                             [](const auto& position, time_point time) { return position.stamped < time; });
        if (found == positions.end() || found->stamped != sample.data_time || sample.status != 1)
            return Verdict::Wrong;
        const std::array<float, 3> expected{static_cast<float>(found->record.piston),
                                            static_cast<float>(found->record.tip),
                                            static_cast<float>(found->record.tilt)};
        if (sample.values != expected || found->moved > sample.arrived) return Verdict::Wrong;
        const auto next = found + 1;
        return OldIf(next != positions.end() && IsDue(next->moved, sample));
    }

    // The host looks for answers at the points of its grid.
    Verdict JudgeU4(const AoSample& sample) const {
        const auto due = [&](const FieldRecord& record) {
            return record.delivery == Delivery::Done &&
                   IsDue(record.given + m_scenario.streams->interval, sample);
        };
        const auto fits = [&](const FieldRecord& record) {
            return record.delivery != Delivery::Refused && sample.status == 1 &&
                   sample.values[0] == record.out.u4_tt.tip && sample.values[1] == record.out.u4_tt.tilt;
        };
        return JudgeLatest(m_facts.flowgraph, &FieldRecord::taken, sample, due, fits);
    }

    Verdict JudgeSensors(const AoSample& sample) const {
        const auto due = [&](const FeedbackRecord& record) {
            return IsUnharmed(record.fault) && IsDue(record.sent, sample);
        };
        const auto fits = [&](const FeedbackRecord& record) {
            return !(record.fault && HarmOf(*record.fault) == Harm::Certain) && sample.status == 1 &&
                   sample.digest == record.digest;
        };
        return JudgeLatest(m_facts.feedback, &FeedbackRecord::sent, sample, due, fits);
    }

    // Holds the sample against the latest few records that may have been in it.
    template <class Record, class Time, class Due, class Fits>
    static Verdict JudgeLatest(std::span<const Record> records, Time time, const AoSample& sample,
                               const Due& due, const Fits& fits) {
        const auto end = std::lower_bound(
            records.begin(), records.end(), sample.arrived,
            [time](const Record& record, time_point arrived) { return std::invoke(time, record) < arrived; });
        const auto first = end - std::min<std::ptrdiff_t>(end - records.begin(), CANDIDATES);
        bool newer_is_due = false;
        for (auto record = end; record != first;) {
            --record;
            if (fits(*record)) return OldIf(newer_is_due);
            newer_is_due = newer_is_due || due(*record);
        }
        // Before the first data, or the first of a host that has none yet.
        return sample.digest == Digest{} ? OldIf(newer_is_due) : Verdict::Wrong;
    }

    // The time of the data names the setpoint that M4 applied.
    Verdict JudgeApplied(const AoSample& sample) {
        if ((sample.status & ~KNOWN_BITS) != 0) return Verdict::Wrong;
        if (sample.data_time == time_point{}) {
            m_named.reset();
            if (sample.digest != Digest{} || !HasUnansweredStatus(sample)) return Verdict::Wrong;
            return OldIf(IsAnswerIgnored(sample));
        }
        const auto named = m_answers.find(sample.data_time);
        if (named == m_answers.end()) return Verdict::Wrong;
        const SetpointRecord& setpoint = m_facts.setpoints[named->second];
        const bool right = setpoint.answer_sent <= sample.arrived && HasStatusOf(setpoint, sample) &&
                           IsWithoutReference(sample, named->second);
        m_named = named->second;
        if (!right) return Verdict::Wrong;
        const auto latest = LatestDueAnswer(sample);
        return OldIf(latest && setpoint.answer_sent < m_facts.setpoints[*latest].answer_sent);
    }

    std::vector<defs::VoskControlMode> ModesOf(const SetpointRecord& setpoint) const {
        return m_modes.InForce(CommandTime(setpoint) - m_scenario.CommandPeriod(), setpoint.arrived);
    }
    time_point CommandTime(const SetpointRecord& setpoint) const {
        return setpoint.planned - m_scenario.host.m4_send_delay;
    }

    bool HasStatusOf(const SetpointRecord& setpoint, const AoSample& sample) const {
        if (sample.status == 0) return MayBeInHandover(sample, CommandTime(setpoint));
        const auto modes = ModesOf(setpoint);
        return std::any_of(modes.begin(), modes.end(), [&](defs::VoskControlMode mode) {
            return sample.status == (SourceOf(mode) | ExtInfo::APPLIED_TIME_GIVEN);
        });
    }

    // Nobody commands M4 from a change of mode on, until the first setpoint of the new source.
    bool MayBeInHandover(const AoSample& sample, time_point last_command) const {
        return std::any_of(m_facts.modes.begin(), m_facts.modes.end(),
                           [&](const ModeTimeline::Change& change) {
                               return change.asked <= sample.arrived &&
                                      (change.done == time_point::max() ||
                                       last_command <= change.done + m_scenario.CommandPeriod());
                           });
    }

    // A source is added to the word that was there before.
    bool HasUnansweredStatus(const AoSample& sample) const {
        if (sample.status == 0) return true;
        const auto bits = [&](time_point from) {
            std::uint16_t all = 0;
            for (const auto mode : m_modes.InForce(from, sample.arrived))
                all = static_cast<std::uint16_t>(all | SourceOf(mode));
            return all;
        };
        const auto recent = sample.stamped - 4 * m_scenario.CommandPeriod();
        return (sample.status & SOURCE_BITS & ~bits(time_point{})) == 0 &&
               (sample.status & bits(recent)) != 0;
    }

    // Zeroes while M4 answered, and no setpoint behind its answer can have run out of time.
    bool IsAnswerIgnored(const AoSample& sample) const {
        const auto latest = LatestDueAnswer(sample);
        return latest && m_facts.setpoints[*latest].planned + m_scenario.CommandPeriod() +
                                 m_scenario.host.m4_response_timeout >
                             sample.arrived;
    }

    // Of the answers that came in time.
    std::optional<std::size_t> LatestDueAnswer(const AoSample& sample) const {
        auto answer = m_answers.upper_bound(sample.stamped - m_settings.margin - ANSWER_TRAVEL);
        while (answer != m_answers.begin()) {
            --answer;
            const SetpointRecord& setpoint = m_facts.setpoints[answer->second];
            const bool in_time = setpoint.answer_sent + ANSWER_TRAVEL <=
                                 setpoint.planned + m_scenario.host.m4_response_timeout;
            if (in_time && setpoint.answer == AnswerFate::Sent && IsUnharmed(setpoint.answer_fault))
                return answer->second;
        }
        return std::nullopt;
    }

    // Each handover takes up what was applied last. From then on the stream tells what M4 has beyond that.
    // The samples tell what was applied last. Where there may be several, those count that fit all samples
    // until the next handover.
    bool IsWithoutReference(const AoSample& sample, std::size_t setpoint) {
        const SetpointRecord& record = m_facts.setpoints[setpoint];
        const time_point time = CommandTime(record);
        const std::size_t last = m_modes.HandoversAskedBy(time);
        const std::size_t first = HandoversDoneBy(time);
        if (m_references.find(last) == m_references.end()) m_references[last] = LastAppliedBefore(setpoint);
        const auto fits = [&](const Digest& reference) {
            return IsDifference(sample.digest, record.digest, reference);
        };
        bool fits_any = false;
        for (std::size_t i = first; i <= last; ++i)
            fits_any = fits_any || std::any_of(m_references[i].begin(), m_references[i].end(), fits);
        if (first != last)
            m_references[last].push_back(record.digest);  // it may be the last one before the handover
        else if (fits_any)
            std::erase_if(m_references[last], [&](const Digest& reference) { return !fits(reference); });
        return fits_any;
    }

    std::size_t HandoversDoneBy(time_point time) const {
        ModeTimeline done;
        for (const ModeTimeline::Change& change : m_facts.modes)
            if (change.done != time_point::max())
                done.Ask(change.mode, change.done + m_scenario.CommandPeriod());
        return done.HandoversAskedBy(time);
    }

    // What the sample before told, and setpoints that came after it and whose samples may be missing.
    std::vector<Digest> LastAppliedBefore(std::size_t setpoint) const {
        std::vector<Digest> digests{m_named ? m_facts.setpoints[*m_named].digest : Digest{}};
        for (std::size_t i = m_named ? *m_named + 1 : 0; i < setpoint; ++i)
            if (m_facts.setpoints[i].answer == AnswerFate::Sent)
                digests.push_back(m_facts.setpoints[i].digest);
        return digests;
    }

    void CountBeats() {
        time_point busy_until;
        for (std::size_t i = 0; i < m_facts.commands.size(); ++i) {
            const CommandRecord& command = m_facts.commands[i];
            std::vector<time_point> arrivals;
            for (const auto& present : m_present)
                if (present[i] != nullptr) arrivals.push_back(present[i]->arrived);
            const bool ended =
                command.time_stamp + m_settings.delays.back() + m_settings.margin >= m_facts.until;
            if (arrivals.empty()) {
                CountEmptyBeat(command, ended, busy_until);
                continue;
            }
            if (arrivals.size() < AO_STREAMS && ended) continue;
            for (std::size_t stream = 0; stream < AO_STREAMS; ++stream) CountDue(stream, i);
            if (arrivals.size() < AO_STREAMS) ++m_accounts.partial;
            if (!std::is_sorted(arrivals.begin(), arrivals.end(), [](time_point later, time_point earlier) {
                    return later + CLOCK_DIFFERENCE < earlier;
                }))
                ++m_accounts.disorder;
            busy_until = std::max(busy_until, *std::max_element(arrivals.begin(), arrivals.end()));
        }
    }

    void CountDue(std::size_t stream, std::size_t command) {
        ++m_accounts.streams[stream].due;
        if (m_present[stream][command] == nullptr) ++m_accounts.streams[stream].missing;
    }

    void CountEmptyBeat(const CommandRecord& command, bool ended, time_point busy_until) {
        if (!IsUnharmed(command.fault)) {
            ++m_accounts.harmed;
            return;
        }
        if (ended) return;
        // The host takes its next beat a little after the last packet of the one before.
        ++(command.sent <= busy_until + ANSWER_TRAVEL ? m_accounts.dropped : m_accounts.skipped);
        for (AoStreamAccount& account : m_accounts.streams) {
            ++account.due;
            ++account.missing;
        }
    }

    void Judge() {
        auto& violations = m_accounts.violations;
        const auto refuse = [&](std::uint64_t count, const std::string& what) {
            if (count > 0) violations.push_back(fmt::format("{} {}", count, what));
        };
        std::uint64_t broken = 0;
        for (std::size_t i = 0; i < AO_STREAMS; ++i) {
            const AoStreamAccount& account = m_accounts.streams[i];
            const std::string name = NameOf(static_cast<AoStream>(i));
            broken += m_facts.broken[i];
            refuse(account.wrong, name + ": samples with wrong content, time or ID");
            const std::uint64_t exceptions = account.missing + account.late + account.old;
            if (static_cast<double>(exceptions) >
                m_scenario.expect.max_exceptions * static_cast<double>(account.due))
                violations.push_back(
                    fmt::format("{}: missing, late or old: {} of {}", name, exceptions, account.due));
            if (account.right == 0) violations.push_back(name + ": no sample was right and in time");
        }
        refuse(m_accounts.partial > broken ? m_accounts.partial : 0,
               "beats have some of their AO samples only");
        refuse(m_accounts.disorder, "beats have their AO samples in another order");
    }

    const Scenario& m_scenario;
    const AoStreamSettings& m_settings;
    const AoStreamsFacts& m_facts;
    ModeTimeline m_modes;
    std::map<time_point, std::size_t> m_answers;                     // setpoints by the time of their answer
    std::array<std::vector<const AoSample*>, AO_STREAMS> m_present;  // by command

    // Of the samples of the setpoint applied, up to the one in work.
    std::optional<std::size_t> m_named;  // setpoint of the last sample, unless that had zeroes
    // After so many handovers: the reference shapes that fit all samples.
    std::map<std::size_t, std::vector<Digest>> m_references{{0, {Digest{}}}};
    AoStreamsAccounts m_accounts;
};

}  // namespace

AoStreamsAccounts MakeAoStreamsAccounts(const Scenario& scenario, const AoStreamsFacts& facts) {
    return Books(scenario, facts).Make();
}

}  // namespace vosk::rig
