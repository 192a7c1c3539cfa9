#include "judge/fieldAccount.hpp"

#include "peers/pfsPeer.hpp"
#include "skyRotation.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <optional>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;
using defs::FloatVectorTT;
using std::chrono::nanoseconds;

// A sample older than this is not taken for the newest one, however late the host is.
constexpr nanoseconds LONGEST_AGE = 1s;
// Between a double and the float that it became, as a share of the larger of value and one.
constexpr double ROUNDING = 1e-6;
constexpr decltype(FieldRecord{}.in.img_centroid_error) NO_ERRORS{};

bool Close(double left, double right) {
    return std::abs(left - right) <= ROUNDING * std::max(1.0, std::abs(right));
}

bool Close(TipTilt left, TipTilt right) {
    return Close(left.tip, right.tip) && Close(left.tilt, right.tilt);
}

TipTilt Wide(FloatVectorTT tt) {
    return {tt.tip, tt.tilt};
}

FloatVectorTT Narrow(double tip, double tilt) {
    return {static_cast<float>(tip), static_cast<float>(tilt)};
}

// The samples that moved from `from` to `to`.
template <class Record>
std::span<const Sample<Record>> Moved(std::span<const Sample<Record>> samples, time_point from,
                                      time_point to) {
    const auto before = [](const Sample<Record>& sample, time_point time) { return sample.moved < time; };
    const auto first = std::lower_bound(samples.begin(), samples.end(), from, before);
    const auto last = std::lower_bound(first, samples.end(), to, before);
    return {first, last};
}

// The first point of the grid that does not lie before `time`.
time_point NextPoint(time_point time, nanoseconds interval, nanoseconds offset) {
    const nanoseconds past = (time.time_since_epoch() - offset) % interval;
    return past.count() == 0 ? time : time + interval - past;
}

class Books {
public:
    Books(const Scenario& scenario, const FieldFacts& facts)
        : m_scenario(scenario), m_settings(*scenario.streams), m_facts(facts) {}

    FieldAccounts Make() {
        CheckFlowgraph();
        CheckInputs();
        CheckM5Commands();
        CheckPfsCorrections();
        CheckMsCorrections();
        if (!m_scenario.telescope) m_accounts.loop = FitLoop(m_scenario, m_facts);
        Judge();
        return std::move(m_accounts);
    }

private:
    // Whether the pointing of a measurement that may have been the last one at `time` fits.
    template <class Fits>
    bool UnderSomePointing(time_point time, const Fits& fits) const {
        const auto measurements = Moved(m_facts.measurements, Oldest(time, m_facts.pfs_trouble), time);
        return std::any_of(measurements.rbegin(), measurements.rend(), [&](const auto& sample) {
            const auto& values = sample.record.pointing.values;
            return fits(Pointing{values[0], values[1]});
        });
    }

    // Of the samples that may count at `time`: the host keeps the last one while its sender is away.
    static time_point Oldest(time_point time, const Trouble& trouble) {
        time_point oldest = time - LONGEST_AGE;
        for (const Absences::Absence& absence : trouble.away)
            if (absence.from < time && absence.to > oldest) oldest = absence.from - LONGEST_AGE;
        return oldest;
    }

    // Whether the sample that was due then was spoilt, or never made.
    bool IsSpoilt(const Trouble& trouble, time_point due) const {
        const auto is_it = [&](time_point time) { return std::chrono::abs(time - due) <= m_settings.margin; };
        return IsAway(trouble.away, due, m_settings.margin) ||
               std::any_of(trouble.spoilt.begin(), trouble.spoilt.end(), is_it);
    }

    // The flowgraph's numbers and its law, worked out again from what it was given.
    void CheckFlowgraph() {
        TipTilt command;
        const FieldRecord* before = nullptr;
        for (const FieldRecord& record : m_facts.flowgraph) {
            const bool is_first = before == nullptr || before->life != record.life;
            const auto errors = is_first ? NO_ERRORS : before->in.img_centroid_error;
            if (is_first) {
                command = {};
            } else {
                m_accounts.lost_inputs += record.in.sample_id - before->in.sample_id - 1;
            }
            before = &record;
            if (record.in.img_centroid_error != errors)
                command = Integrate(m_settings, command, MeanErrorOf(m_settings, record));
            if (!Close(Wide(record.out.m5), Part(m_settings.m5_share, command)) ||
                !Close(Wide(record.out.ms), Part(m_settings.ms_share, command)) ||
                !Close(Wide(record.out.u4_tt), Part(m_settings.u4_share, command)))
                ++m_accounts.wrong_answers;
            const auto offset = m_settings.InputOffset();
            if (NextPoint(record.in.timestamp, m_settings.interval, offset) != record.in.timestamp)
                ++m_accounts.off_grid;
        }
    }

    static TipTilt Part(double share, TipTilt command) { return {share * command.tip, share * command.tilt}; }

    void CheckErrors() {
        CheckInput("ECMWFSim errors in fs_in", m_facts.errors, m_facts.errors_trouble,
                   m_settings.InputOffset(), [](const FieldRecord& record, const auto& sample) {
                       for (std::size_t i = 0; i < 4; ++i) {
                           const auto& block = sample.record.blocks[i];
                           if (record.in.img_centroid_error[i] != Narrow(block.x, block.y)) return false;
                       }
                       return true;
                   });
    }

    void CheckInputs() {
        const nanoseconds measured = m_settings.InputOffset() - m_settings.MeasurementOffset();
        if (!m_scenario.telescope) CheckErrors();
        CheckInput("PFS measurement in fs_in", m_facts.measurements, m_facts.pfs_trouble, measured,
                   [](const FieldRecord& record, const auto& sample) {
                       for (std::size_t i = 0; i < 3; ++i) {
                           const auto& probe = sample.record.guide_probes[i];
                           if (record.in.gp_tt[i] != Narrow(probe.tip, probe.tilt) ||
                               record.in.gp_value[i] != static_cast<float>(probe.value))
                               return false;
                       }
                       return record.in.pointing_value ==
                              static_cast<float>(sample.record.pointing.values[4]);
                   });
        CheckInput("M5 position in fs_in", m_facts.m5_positions, m_facts.m5_trouble, measured,
                   [&](const FieldRecord& record, const auto& sample) {
                       const TipTilt m5{sample.record.tip, sample.record.tilt};
                       // The host turns a position when it comes.
                       return UnderSomePointing(sample.moved + m_settings.interval, [&](Pointing pointing) {
                           return Close(Wide(record.in.m5), M5ToSky(m5, pointing));
                       });
                   });
    }

    // Each record must hold the newest sample that was sent `due_age` before it, or a younger one.
    template <class Record, class Fits>
    void CheckInput(const char* name, std::span<const Sample<Record>> samples, const Trouble& trouble,
                    nanoseconds due_age, const Fits& fits) {
        HopAccount hop;
        hop.name = name;
        const Sample<Record>* before = nullptr;
        for (const FieldRecord& record : m_facts.flowgraph) {
            const time_point time = record.in.timestamp;
            if (time < m_facts.first + LONGEST_AGE || time > m_facts.until) continue;
            ++hop.due;
            // The record is filled a little after its time.
            const auto candidates = Moved(samples, Oldest(time, trouble), record.taken);
            const auto found = std::find_if(candidates.rbegin(), candidates.rend(),
                                            [&](const auto& sample) { return fits(record, sample); });
            if (found == candidates.rend()) {
                ++hop.wrong;
                continue;
            }
            const nanoseconds late = time - found->moved - due_age;
            hop.delays.push_back(MicrosecondsOf(late));
            const bool is_missing = &*found == before;
            if (!is_missing && late <= m_settings.margin)
                ++hop.right;
            else if (IsSpoilt(trouble, time - due_age))
                ++hop.excused;
            else
                ++(is_missing ? hop.missing : hop.late);
            before = &*found;
        }
        m_accounts.hops.push_back(std::move(hop));
    }

    void CheckM5Commands() {
        CheckCommands("M5 command", m_facts.m5_commands, m_facts.m5_trouble,
                      [&](const auto& sample, const auto& out) {
                          if (sample.record.piston != 0.0) return false;
                          return UnderSomePointing(sample.moved, [&](Pointing pointing) {
                              return Close(TipTilt{sample.record.tip, sample.record.tilt},
                                           SkyToM5(Wide(out.m5), pointing));
                          });
                      });
    }

    void CheckPfsCorrections() {
        CheckCommands("PFS correction", m_facts.pfs_corrections, m_facts.pfs_trouble,
                      [this](const auto& sample, const auto& out) {
                          for (std::size_t i = 0; i < 3; ++i) {
                              const auto& probe = sample.record.guide_probes[i];
                              if (Narrow(probe.tip, probe.tilt) != out.pfs[i] ||
                                  !MayBeCentering(probe.flag == 1, sample.moved))
                                  return false;
                          }
                          return true;
                      });
    }

    // A correction is made up to an interval before it is sent.
    bool MayBeCentering(bool on, time_point sent) const {
        bool is_on = true;
        for (const HostCommand& command : m_facts.commands) {
            const auto* change = std::get_if<SetCentering>(&command.action);
            if (change == nullptr || command.asked > sent) continue;
            if (command.done > sent - 2 * m_settings.interval) return true;
            is_on = change->on;
        }
        return on == is_on;
    }

    void CheckMsCorrections() {
        CheckCommands("MS correction", m_facts.ms_corrections, m_facts.ms_trouble,
                      [](const auto& sample, const auto& out) {
                          return Narrow(sample.record.tip, sample.record.tilt) == out.ms &&
                                 sample.record.flag == 1 && time_point(sample.record.time) == sample.stamped;
                      });
    }

    // Each answer must arrive once, under its ID and at its point of the grid. Whatever else arrives must
    // repeat the answer before it: the host does so while the flowgraph is silent.
    template <class Record, class Fits>
    void CheckCommands(const char* name, std::span<const Sample<Record>> commands, const Trouble& trouble,
                       const Fits& fits) {
        HopAccount hop;
        hop.name = name;
        const FieldRecord* latest = nullptr;
        auto next = m_facts.flowgraph.begin();
        std::vector<bool> arrived(m_facts.flowgraph.size());
        for (const Sample<Record>& command : commands) {
            if (command.moved < m_facts.first + LONGEST_AGE || command.moved > m_facts.until) continue;
            while (next != m_facts.flowgraph.end() && next->out.timestamp <= command.moved) latest = &*next++;
            const FieldRecord* answer = FindAnswer(command, latest, fits);
            if (answer == nullptr) {
                ++hop.wrong;
                continue;
            }
            const auto index = static_cast<std::size_t>(answer - m_facts.flowgraph.data());
            if (answer->out.sample_id != command.id || arrived[index]) {
                ++hop.repeated;
                continue;
            }
            arrived[index] = true;
            const time_point due = CommandTime(*answer);
            const nanoseconds late = command.moved - due;
            hop.delays.push_back(MicrosecondsOf(late));
            if (command.stamped != due)
                ++hop.wrong;
            else if (late > m_settings.margin)
                ++hop.late;
            else
                ++hop.right;
        }
        CountMissing(hop, arrived, trouble);
        m_accounts.hops.push_back(std::move(hop));
    }

    // Among the latest few answers that the host may have had; before the first one it repeats zeroes.
    template <class Record, class Fits>
    const FieldRecord* FindAnswer(const Sample<Record>& command, const FieldRecord* latest,
                                  const Fits& fits) const {
        if (latest == nullptr) return nullptr;
        const FieldRecord* repeated = nullptr;
        const auto known = static_cast<std::size_t>(latest - m_facts.flowgraph.data()) + 1;
        for (std::size_t age = 0; age < std::min<std::size_t>(known, 8); ++age) {
            const FieldRecord* const answer = latest - age;
            if (answer->delivery == Delivery::Refused || !fits(command, answer->out)) continue;
            if (answer->out.sample_id == command.id) return answer;
            if (repeated == nullptr) repeated = answer;
        }
        return repeated;
    }

    time_point CommandTime(const FieldRecord& answer) const {
        return NextPoint(answer.out.timestamp, m_settings.interval, 0ns) + m_settings.CommandOffset();
    }

    void CountMissing(HopAccount& hop, const std::vector<bool>& arrived, const Trouble& trouble) const {
        for (std::size_t i = 0; i < arrived.size(); ++i) {
            const FieldRecord& record = m_facts.flowgraph[i];
            const time_point due = record.out.timestamp;
            if (record.delivery == Delivery::Open && !arrived[i]) continue;  // perhaps never given
            if (due < m_facts.first + LONGEST_AGE || due > m_facts.until - 5 * m_settings.interval) continue;
            ++hop.due;
            if (arrived[i]) continue;
            ++(IsAway(trouble.away, CommandTime(record), m_settings.interval) ? hop.excused : hop.missing);
        }
    }

    void Judge() {
        auto& violations = m_accounts.violations;
        if (m_facts.flowgraph.empty())
            violations.emplace_back("the flowgraph of field stabilisation got nothing");
        const auto refuse = [&](std::uint64_t count, const std::string& what) {
            if (count > 0) violations.push_back(fmt::format("{} {}", count, what));
        };
        refuse(m_accounts.wrong_answers,
               "answers of the flowgraph are not what its law makes of their inputs");
        refuse(m_accounts.off_grid, "records of fs_in carry a time off the grid");
        std::uint64_t inputs = 0;
        for (const HopAccount& hop : m_accounts.hops) {
            inputs = std::max(inputs, hop.due);
            refuse(hop.wrong, hop.name + ": wrong in content, time or ID");
            RefuseShare(hop.missing + hop.late, hop.due, hop.name + ": missing or late");
            if (hop.right == 0) violations.push_back(hop.name + ": none was right and in time");
        }
        RefuseShare(m_accounts.lost_inputs, inputs, "records of fs_in lost");
        if (m_scenario.telescope) return;
        const LoopFit& loop = m_accounts.loop;
        if (loop.error_rms > m_settings.max_loop_error * m_settings.disturbance)
            violations.push_back(
                fmt::format("the residual is {:.4f} rms off its prediction", loop.error_rms));
        if (loop.Rejection() < m_settings.min_rejection)
            violations.push_back(fmt::format("the loop rejects by {:.2f} only", loop.Rejection()));
        JudgeReturns();
    }

    void JudgeReturns() {
        for (const LoopReturn& back : m_accounts.loop.returns)
            if (!back.closed || *back.closed > m_scenario.expect.recovery)
                m_accounts.violations.push_back(
                    fmt::format("after {} came back, the loop was not closed within {} ms", back.who,
                                m_scenario.expect.recovery.count()));
    }

    void RefuseShare(std::uint64_t count, std::uint64_t of, const std::string& what) {
        const double limit = m_scenario.expect.max_exceptions * static_cast<double>(of);
        if (static_cast<double>(count) > limit)
            m_accounts.violations.push_back(fmt::format("{}: {} of {}", what, count, of));
    }

    const Scenario& m_scenario;
    const StreamSettings& m_settings;
    const FieldFacts& m_facts;
    FieldAccounts m_accounts;
};

}  // namespace

FieldAccounts MakeFieldAccounts(const Scenario& scenario, const FieldFacts& facts) {
    return Books(scenario, facts).Make();
}

}  // namespace vosk::rig
