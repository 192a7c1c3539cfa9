#include "judge/fieldAccount.hpp"

#include "disturbance.hpp"
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

double RmsOf(double sum, std::uint64_t count) {
    return count == 0 ? 0.0 : std::sqrt(sum / static_cast<double>(count));
}

class Books {
public:
    Books(const Scenario& scenario, const FieldFacts& facts)
        : m_scenario(scenario),
          m_settings(*scenario.streams),
          m_facts(facts),
          m_disturbance(m_settings.disturbance, scenario.seed) {}

    FieldAccounts Make() {
        CheckFlowgraph();
        CheckInputs();
        CheckM5Commands();
        CheckPfsCorrections();
        CheckMsCorrections();
        FitLoop();
        Judge();
        return std::move(m_accounts);
    }

private:
    // Whether the pointing of a measurement that may have been the last one at `time` fits.
    template <class Fits>
    bool UnderSomePointing(time_point time, const Fits& fits) const {
        const auto measurements = Moved(m_facts.measurements, time - LONGEST_AGE, time);
        return std::any_of(measurements.rbegin(), measurements.rend(), [&](const auto& sample) {
            const auto& values = sample.record.pointing.values;
            return fits(Pointing{values[0], values[1]});
        });
    }

    // The flowgraph's numbers and its law, worked out again from what it was given.
    void CheckFlowgraph() {
        TipTilt command;
        const FieldRecord* before = nullptr;
        for (const FieldRecord& record : m_facts.flowgraph) {
            if (before == nullptr || before->life != record.life) {
                command = {};
            } else {
                m_accounts.lost_inputs += record.in.sample_id - before->in.sample_id - 1;
            }
            before = &record;
            command = Integrate(command, MeanError(record));
            if (!Close(Wide(record.out.m5), command)) ++m_accounts.wrong_answers;
            const auto offset = m_settings.InputOffset();
            if (NextPoint(record.in.timestamp, m_settings.interval, offset) != record.in.timestamp)
                ++m_accounts.off_grid;
        }
    }

    static TipTilt MeanError(const FieldRecord& record) {
        TipTilt mean;
        for (const FloatVectorTT& error : record.in.img_centroid_error) {
            mean.tip += error.tip / 4.0;
            mean.tilt += error.tilt / 4.0;
        }
        return mean;
    }

    TipTilt Integrate(TipTilt command, TipTilt error) const {
        return {m_settings.leak * command.tip + m_settings.gain * error.tip,
                m_settings.leak * command.tilt + m_settings.gain * error.tilt};
    }

    void CheckInputs() {
        const nanoseconds measured = m_settings.InputOffset() - m_settings.MeasurementOffset();
        CheckInput("ECMWFSim errors in fs_in", m_facts.errors, m_settings.InputOffset(),
                   [](const FieldRecord& record, const auto& sample) {
                       for (std::size_t i = 0; i < 4; ++i) {
                           const auto& block = sample.record.blocks[i];
                           if (record.in.img_centroid_error[i] != Narrow(block.x, block.y)) return false;
                       }
                       return true;
                   });
        CheckInput("PFS measurement in fs_in", m_facts.measurements, measured,
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
        CheckInput("M5 position in fs_in", m_facts.m5_positions, measured,
                   [&](const FieldRecord& record, const auto& sample) {
                       const TipTilt m5{sample.record.tip, sample.record.tilt};
                       return UnderSomePointing(record.in.timestamp, [&](Pointing pointing) {
                           return Close(Wide(record.in.m5), M5ToSky(m5, pointing));
                       });
                   });
    }

    // Each record must hold the content of one sample, the newest that was sent `due_age` before it. Younger
    // ones may be in it or not.
    template <class Record, class Fits>
    void CheckInput(const char* name, std::span<const Sample<Record>> samples, nanoseconds due_age,
                    const Fits& fits) {
        HopAccount hop;
        hop.name = name;
        const Sample<Record>* before = nullptr;
        for (const FieldRecord& record : m_facts.flowgraph) {
            const time_point time = record.in.timestamp;
            if (time < m_facts.first + LONGEST_AGE || time > m_facts.until) continue;
            ++hop.due;
            // The record is filled a little after its time.
            const auto candidates = Moved(samples, time - LONGEST_AGE, record.taken);
            const auto found = std::find_if(candidates.rbegin(), candidates.rend(),
                                            [&](const auto& sample) { return fits(record, sample); });
            if (found == candidates.rend()) {
                ++hop.wrong;
                continue;
            }
            const nanoseconds late = time - found->moved - due_age;
            hop.delays.push_back(MicrosecondsOf(late));
            if (&*found == before)
                ++hop.missing;
            else if (late > m_settings.margin)
                ++hop.late;
            else
                ++hop.right;
            before = &*found;
        }
        m_accounts.hops.push_back(std::move(hop));
    }

    void CheckM5Commands() {
        CheckCommands("M5 command", m_facts.m5_commands, [&](const auto& sample, const auto& out) {
            if (sample.record.piston != 0.0) return false;
            return UnderSomePointing(sample.moved, [&](Pointing pointing) {
                return Close(TipTilt{sample.record.tip, sample.record.tilt}, SkyToM5(Wide(out.m5), pointing));
            });
        });
    }

    void CheckPfsCorrections() {
        CheckCommands("PFS correction", m_facts.pfs_corrections, [](const auto& sample, const auto& out) {
            for (std::size_t i = 0; i < 3; ++i) {
                const auto& probe = sample.record.guide_probes[i];
                if (Narrow(probe.tip, probe.tilt) != out.pfs[i]) return false;
            }
            return true;
        });
    }

    void CheckMsCorrections() {
        CheckCommands("MS correction", m_facts.ms_corrections, [](const auto& sample, const auto& out) {
            return Narrow(sample.record.tip, sample.record.tilt) == out.ms && sample.record.flag == 1 &&
                   time_point(sample.record.time) == sample.stamped;
        });
    }

    // Each answer must arrive once, under its ID and at its point of the grid; whatever else arrives must
    // repeat the answer before it, as the host does while the flowgraph is silent.
    template <class Record, class Fits>
    void CheckCommands(const char* name, std::span<const Sample<Record>> commands, const Fits& fits) {
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
            const time_point due =
                NextPoint(answer->out.timestamp, m_settings.interval, 0ns) + m_settings.CommandOffset();
            const nanoseconds late = command.moved - due;
            hop.delays.push_back(MicrosecondsOf(late));
            if (command.stamped != due)
                ++hop.wrong;
            else if (late > m_settings.margin)
                ++hop.late;
            else
                ++hop.right;
        }
        CountMissing(hop, arrived);
        m_accounts.hops.push_back(std::move(hop));
    }

    // Among the latest few answers that the host may have had; before the first one it repeats zeroes.
    template <class Record, class Fits>
    const FieldRecord* FindAnswer(const Sample<Record>& command, const FieldRecord* latest,
                                  const Fits& fits) const {
        if (latest == nullptr) return nullptr;
        const FieldRecord* const end = m_facts.flowgraph.data() - 1;
        const FieldRecord* repeated = nullptr;
        for (const FieldRecord* answer = latest; answer != end && latest - answer < 8; --answer) {
            if (answer->delivery == Delivery::Refused || !fits(command, answer->out)) continue;
            if (answer->out.sample_id == command.id) return answer;
            if (repeated == nullptr) repeated = answer;
        }
        return repeated;
    }

    void CountMissing(HopAccount& hop, const std::vector<bool>& arrived) const {
        for (std::size_t i = 0; i < arrived.size(); ++i) {
            const FieldRecord& record = m_facts.flowgraph[i];
            const time_point due = record.out.timestamp;
            if (record.delivery == Delivery::Open && !arrived[i]) continue;  // perhaps never given
            if (due < m_facts.first + LONGEST_AGE || due > m_facts.until - 5 * m_settings.interval) continue;
            ++hop.due;
            if (!arrived[i]) ++hop.missing;
        }
    }

    // The loop as it must be with the delays of the scenario: each error acts on M5 from its command's point
    // of the grid on. Each start of the flowgraph resets it to the last command of M5.
    void FitLoop() {
        double disturbance = 0.0;
        double residual = 0.0;
        double predicted = 0.0;
        double error = 0.0;
        std::uint64_t& count = m_accounts.loop.samples;
        for (auto begin = m_facts.flowgraph.begin(); begin != m_facts.flowgraph.end();) {
            const auto end = std::find_if(begin, m_facts.flowgraph.end(),
                                          [&](const auto& record) { return record.life != begin->life; });
            Model model{*this, Wide(begin->in.m5)};
            std::optional<std::uint32_t> id;  // of the next record
            for (auto record = begin; record != end; ++record) {
                const time_point time = record->in.timestamp - m_settings.InputOffset();
                if (time > m_facts.until) break;
                if (time < m_facts.first - 1ms) continue;  // the first error was sent then
                // What the flowgraph missed, the loop missed.
                while (id && (*id)++ < record->in.sample_id) model.Miss();
                const TipTilt light = LightAt(time);
                const TipTilt should = model.Step(light);
                id = record->in.sample_id + 1;
                const TipTilt is = MeanError(*record);
                const auto square = [](double a, double b) { return a * a + b * b; };
                disturbance += square(light.tip, light.tilt);
                residual += square(is.tip, is.tilt);
                predicted += square(should.tip, should.tilt);
                error += square(is.tip - should.tip, is.tilt - should.tilt);
                ++count;
            }
            begin = end;
        }
        m_accounts.loop.disturbance_rms = RmsOf(disturbance, 2 * count);
        m_accounts.loop.residual_rms = RmsOf(residual, 2 * count);
        m_accounts.loop.predicted_rms = RmsOf(predicted, 2 * count);
        m_accounts.loop.error_rms = RmsOf(error, 2 * count);
    }

    TipTilt LightAt(time_point time) const {
        return m_disturbance.At(std::chrono::duration<double>(time - m_facts.first).count());
    }

    class Model {
    public:
        Model(const Books& books, TipTilt m5) : m_books(books), m_m5(m5), m_target(m5) {
            const double lag = std::chrono::duration<double>(books.m_settings.m5_lag).count();
            const std::chrono::duration<double> after = -books.m_settings.CommandOffset();
            const std::chrono::duration<double> interval = books.m_settings.interval;
            m_left_before = std::exp(-(interval - after).count() / lag);
            m_left_after = std::exp(-after.count() / lag);
        }

        // The residual at the beginning of an interval; then the interval passes.
        TipTilt Step(TipTilt light) {
            const TipTilt residual{light.tip - m_m5.tip, light.tilt - m_m5.tilt};
            m_command = m_books.Integrate(m_command, residual);
            Follow(m_left_before);
            m_target = m_command;
            Follow(m_left_after);
            return residual;
        }
        void Miss() {
            Follow(m_left_before);
            Follow(m_left_after);
        }

    private:
        void Follow(double left) {
            m_m5 = {m_target.tip + (m_m5.tip - m_target.tip) * left,
                    m_target.tilt + (m_m5.tilt - m_target.tilt) * left};
        }

        const Books& m_books;
        TipTilt m_m5;  // on the sky
        TipTilt m_target;
        TipTilt m_command;
        double m_left_before = 0.0;
        double m_left_after = 0.0;
    };

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
        const LoopFit& loop = m_accounts.loop;
        if (loop.error_rms > m_settings.max_loop_error * m_settings.disturbance)
            violations.push_back(
                fmt::format("the residual is {:.4f} rms off its prediction", loop.error_rms));
        if (loop.Rejection() < m_settings.min_rejection)
            violations.push_back(fmt::format("the loop rejects by {:.2f} only", loop.Rejection()));
    }

    void RefuseShare(std::uint64_t count, std::uint64_t of, const std::string& what) {
        const double limit = m_scenario.expect.max_exceptions * static_cast<double>(of);
        if (static_cast<double>(count) > limit)
            m_accounts.violations.push_back(fmt::format("{}: {} of {}", what, count, of));
    }

    const Scenario& m_scenario;
    const StreamSettings& m_settings;
    const FieldFacts& m_facts;
    const Disturbance m_disturbance;
    FieldAccounts m_accounts;
};

}  // namespace

FieldAccounts MakeFieldAccounts(const Scenario& scenario, const FieldFacts& facts) {
    return Books(scenario, facts).Make();
}

}  // namespace vosk::rig
