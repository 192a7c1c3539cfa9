#include "judge/fieldFit.hpp"

#include <algorithm>
#include <array>
#include <cmath>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;

// A loop is closed if so many records in a row keep to the prediction, each within so many times the rms
// that the scenario allows.
constexpr std::size_t RECORDS_IN_A_ROW = 5;
constexpr double SCATTER = 5.0;

double RmsOf(double sum, std::uint64_t count) {
    return count == 0 ? 0.0 : std::sqrt(sum / static_cast<double>(count));
}

double Square(TipTilt tt) {
    return tt.tip * tt.tip + tt.tilt * tt.tilt;
}

// The loop as it must be with the delays of the scenario: each error acts on M5 from its command's point of
// the grid on.
class Model {
public:
    Model(const StreamSettings& settings, TipTilt m5) : m_settings(settings), m_m5(m5), m_target(m5) {
        const double lag = std::chrono::duration<double>(settings.m5_lag).count();
        const std::chrono::duration<double> after = -settings.CommandOffset();
        const std::chrono::duration<double> interval = settings.interval;
        m_left_before = std::exp(-(interval - after).count() / lag);
        m_left_after = std::exp(-after.count() / lag);
    }

    // The residual at the beginning of an interval; then the interval passes.
    TipTilt Step(TipTilt light) {
        const TipTilt residual{light.tip - m_m5.tip, light.tilt - m_m5.tilt};
        m_command = Integrate(m_settings, m_command, residual);
        Repeat();
        return residual;
    }
    // The flowgraph got the error before once more, and gave its command once more.
    void Repeat() {
        Follow(m_left_before);
        m_target = m_command;
        Follow(m_left_after);
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

    const StreamSettings& m_settings;
    TipTilt m_m5;  // on the sky
    TipTilt m_target;
    TipTilt m_command;
    double m_left_before = 0.0;
    double m_left_after = 0.0;
};

class Fitter {
public:
    Fitter(const Scenario& scenario, const FieldFacts& facts)
        : m_scenario(scenario),
          m_settings(*scenario.streams),
          m_facts(facts),
          m_disturbance(m_settings.disturbance, scenario.seed) {}

    LoopFit Fit() {
        for (auto begin = m_facts.flowgraph.begin(); begin != m_facts.flowgraph.end();) {
            const auto end = std::find_if(begin, m_facts.flowgraph.end(),
                                          [&](const auto& record) { return record.life != begin->life; });
            PredictLife({begin, end});
            begin = end;
        }
        SumUp();
        FindReturns("ECMWFSim", m_facts.errors_trouble.away);
        FindReturns("M5", m_facts.m5_trouble.away);
        FindReturns("PFS", m_facts.pfs_trouble.away);
        FindReturns("the flowgraph", m_facts.flowgraph_away);
        return std::move(m_fit);
    }

private:
    struct Point {
        time_point time;
        TipTilt light;
        TipTilt is;
        TipTilt should;

        TipTilt Error() const { return {is.tip - should.tip, is.tilt - should.tilt}; }
    };

    // Each start of the flowgraph resets the loop to the last command of M5.
    void PredictLife(std::span<const FieldRecord> records) {
        Model model{m_settings, {records.front().in.m5.tip, records.front().in.m5.tilt}};
        const FieldRecord* before = nullptr;
        for (const FieldRecord& record : records) {
            const time_point time = record.in.timestamp - m_settings.InputOffset();
            if (time > m_facts.until) break;
            if (time < m_facts.first - 1ms) continue;  // the first error was sent then
            // What the flowgraph missed, the loop missed.
            if (before != nullptr)
                for (auto id = before->in.sample_id + 1; id < record.in.sample_id; ++id) model.Miss();
            const bool is_repeated =
                before != nullptr && before->in.img_centroid_error == record.in.img_centroid_error;
            before = &record;
            if (is_repeated) {
                model.Repeat();
                continue;
            }
            const TipTilt light =
                m_disturbance.At(std::chrono::duration<double>(time - m_facts.first).count());
            m_points.push_back({time, light, MeanErrorOf(m_settings, record), model.Step(light)});
        }
    }

    // Whether a peer of the loop was away at some time of the stretch that ends then.
    bool IsBroken(time_point time, std::chrono::nanoseconds stretch) const {
        const std::array troubles{&m_facts.errors_trouble, &m_facts.m5_trouble, &m_facts.pfs_trouble};
        return std::any_of(troubles.begin(), troubles.end(), [&](const Trouble* trouble) {
            return IsAway(trouble->away, time - stretch, stretch);
        });
    }

    void SumUp() {
        double disturbance = 0.0;
        double residual = 0.0;
        double predicted = 0.0;
        double error = 0.0;
        for (const Point& point : m_points) {
            if (IsBroken(point.time, m_scenario.expect.recovery)) {
                ++m_fit.left_out;
                continue;
            }
            ++m_fit.samples;
            disturbance += Square(point.light);
            residual += Square(point.is);
            predicted += Square(point.should);
            error += Square(point.Error());
        }
        m_fit.disturbance_rms = RmsOf(disturbance, 2 * m_fit.samples);
        m_fit.residual_rms = RmsOf(residual, 2 * m_fit.samples);
        m_fit.predicted_rms = RmsOf(predicted, 2 * m_fit.samples);
        m_fit.error_rms = RmsOf(error, 2 * m_fit.samples);
    }

    void FindReturns(const char* who, std::span<const Absences::Absence> absences) {
        const double limit = SCATTER * m_settings.max_loop_error * m_settings.disturbance;
        for (const Absences::Absence& absence : absences) {
            if (absence.to > m_facts.until - m_scenario.expect.recovery) continue;
            if (IsBroken(absence.to + 1ns, 0ns)) continue;  // the loop closes when the last one is back
            LoopReturn back{who, absence.to, {}};
            std::size_t in_a_row = 0;
            for (const Point& point : m_points) {
                if (point.time < absence.to) continue;
                if (Square(point.Error()) > limit * limit)
                    in_a_row = 0;
                else if (++in_a_row == 1)
                    back.closed = point.time - absence.to;
                if (in_a_row == RECORDS_IN_A_ROW) break;
            }
            if (in_a_row < RECORDS_IN_A_ROW) back.closed.reset();
            m_fit.returns.push_back(back);
        }
    }

    const Scenario& m_scenario;
    const StreamSettings& m_settings;
    const FieldFacts& m_facts;
    const Disturbance m_disturbance;
    std::vector<Point> m_points;
    LoopFit m_fit;
};

}  // namespace

TipTilt MeanErrorOf(const StreamSettings& settings, const FieldRecord& record) {
    const double share = settings.error_scale / 4.0;
    TipTilt mean;
    for (const defs::FloatVectorTT& error : record.in.img_centroid_error) {
        mean.tip += share * error.tip;
        mean.tilt += share * error.tilt;
    }
    return mean;
}

TipTilt Integrate(const StreamSettings& settings, TipTilt command, TipTilt error) {
    return {settings.leak * command.tip + settings.gain * error.tip,
            settings.leak * command.tilt + settings.gain * error.tilt};
}

LoopFit FitLoop(const Scenario& scenario, const FieldFacts& facts) {
    return Fitter(scenario, facts).Fit();
}

}  // namespace vosk::rig
