#include "judge/telescopeLoop.hpp"

#include "judge/aoLoop.hpp"
#include "judge/appliedCheck.hpp"
#include "judge/packetAccount.hpp"
#include "judge/setpointCheck.hpp"
#include "report/plots.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace vosk::rig {
namespace {

using defs::VoskControlMode;

constexpr std::size_t TIP_TILT = 2;
// So many modes: those above are lost in the noise of the sensor.
constexpr std::size_t HIGH_ORDER_JUDGED = 14;
// Cameras are silent after their first frame, and loops close after that. A handover takes less.
constexpr double SETTLING = 2.0;
constexpr double SHORTEST = 1.0;  // a segment with less left is not judged
constexpr double REJECTION_SEGMENT = 3.0;
constexpr std::size_t SPECTRUM_LENGTH = 64;
// For so long after a peer is back and `expect.recovery` is over, the residual must be no more than so many
// times what is predicted.
constexpr double RETURN_WINDOW = 1.0;
constexpr double MOST_EXCESS = 2.0;

// Setpoints are judged as sums: no limit may act on them.
constexpr float WIDE_LIMIT = 1e3F;

using Modes = std::array<double, defs::GPAO_CMD_SIZE>;

double InSeconds(auto duration) {
    return std::chrono::duration<double>(duration).count();
}

double Square(double value) {
    return value * value;
}

double Rms(std::span<const double> values) {
    double sum = 0.0;
    for (const double value : values) sum += Square(value);
    return std::sqrt(sum);
}

}  // namespace

const std::array<TelescopeLoop::Group, 2> TelescopeLoop::GROUPS{
    {{"tip and tilt", 0, TIP_TILT}, {"high order", TIP_TILT, TIP_TILT + HIGH_ORDER_JUDGED}}};

void TelescopeLoop::AddTo(HostDocument& document) const {
    LoopCalibration calibration = m_calibration;
    calibration.limits = {WIDE_LIMIT, WIDE_LIMIT};
    AddAoTasks(m_scenario, calibration, document);
}

PeerAccount TelescopeLoop::Account(const RunFacts& facts) const {
    PeerAccount account;
    AddSetpoints(account);
    AddPackets(account, facts);
    AddLoops(account);
    AddReturns(account);
    return account;
}

void TelescopeLoop::AddSetpoints(PeerAccount& account) const {
    const auto field = m_parts.field.Records<FieldRecord>();
    const auto gpao = m_parts.gpao.Records<GpaoRecord>();
    const SetpointAccounts setpoints = CheckSetpoints({m_parts.m4.Log().Entries(), m_parts.m4.Ring(), field,
                                                       gpao, m_parts.instrument->Log().Entries(), m_modes});
    account.sections.push_back({"Setpoints by the mode's own sum",
                                {"what they are", "count"},
                                {{"right", fmt::to_string(setpoints.right)},
                                 {"wrong", fmt::to_string(setpoints.wrong)},
                                 {"not kept", fmt::to_string(setpoints.unchecked)}},
                                {"Tip and tilt, the modes above, and the reference shape, each of a command "
                                 "that had come by then."}});
    account.times.emplace_back("newest command to setpoint at M4", SpreadOf(setpoints.delays));
    const std::array hops{
        CheckApplied({m_parts.m4.Log().Entries(), setpoints.applied, gpao, m_scenario.gpao->margin})};
    account.sections.push_back(DescribeHops("M4 as GPAO sees it", hops));
    if (hops[0].wrong > 0)
        account.violations.push_back(
            fmt::format("{} records of gpao_in tell what M4 never applied", hops[0].wrong));
    if (static_cast<double>(hops[0].missing) >
        m_scenario.expect.max_exceptions * static_cast<double>(hops[0].due))
        account.violations.push_back(fmt::format("{} of {} records of gpao_in tell of an old answer of M4",
                                                 hops[0].missing, hops[0].due));
    if (setpoints.wrong + setpoints.unchecked > 0)
        account.violations.push_back(fmt::format(
            "{} setpoints are not what the mode makes of the commands, the first at {:.3f} s; {} "
            "were not kept",
            setpoints.wrong, setpoints.wrong == 0 ? 0.0 : InSeconds(setpoints.wrong_at[0] - m_first),
            setpoints.unchecked));
    if (setpoints.right < m_scenario.expect.min_setpoints)
        account.violations.push_back(fmt::format("only {} setpoints with the right content, of at least {}",
                                                 setpoints.right, m_scenario.expect.min_setpoints));
}

void TelescopeLoop::AddPackets(PeerAccount& account, const RunFacts& facts) const {
    if (!facts.at_rest) return;
    const auto compare = [&](const char* name, const char* host_name, std::span<const time_point> sent,
                             const FaultCounts& faults) {
        const HostStream* host = facts.FindStream(host_name);
        if (host == nullptr) return;
        for (std::string& difference :
             CompareSamplesWithHost(name, SentUntilTold(sent, facts), faults, *host))
            account.violations.push_back(std::move(difference));
    };
    FaultCounts command_faults;
    std::vector<time_point> commands;
    for (const CommandRecord& command : m_parts.commands.Log().Entries()) {
        command_faults.Add(command.fault);
        commands.push_back(command.sent);
    }
    compare("wavefront command", "AO_WAVEFRONT_CMD_INPUT", commands, command_faults);
    FaultCounts answer_faults;
    std::vector<time_point> answers;
    for (const SetpointRecord& setpoint : m_parts.m4.Log().Entries()) {
        answer_faults.Add(setpoint.answer_fault);
        if (setpoint.answer_sent != time_point{}) answers.push_back(setpoint.answer_sent);
    }
    compare("am:setpoint_applied", "M4_INPUT", answers, answer_faults);
}

std::vector<TelescopeLoop::Segment> TelescopeLoop::Segments() const {
    std::vector<Segment> segments{{VoskControlMode::TEL_DRIVEN, SETTLING, m_scenario.duration.count()}};
    for (const ModeTimeline::Change& change : m_modes.Changes()) {
        const double asked = InSeconds(change.asked - m_first);
        segments.back().end = asked;
        segments.push_back({change.mode, asked, m_scenario.duration.count()});
    }
    return segments;
}

std::vector<ClosedStretch> TelescopeLoop::Closed(const Segment& segment, const Group& group) const {
    return ClosedStretches(OutagesOf(m_scenario), segment.mode, group.IsTipTilt(),
                           {segment.begin, segment.end, {}});
}

// Exposures and field stabilisation stand on one grid. Under the telescope's control M4's setpoints stand on
// another, see TelescopeSettings.
std::vector<LoopController> TelescopeLoop::ControllersOf(VoskControlMode mode, bool tip_tilt) const {
    const StreamSettings& streams = *m_scenario.streams;
    const TelescopeSettings& telescope = *m_scenario.telescope;
    const double interval = InSeconds(streams.interval);
    const double m4_lag = InSeconds(telescope.m4_lag);
    const double m4_by_telescope = InSeconds(telescope.m4_offset);
    const double m4_by_instrument = InSeconds(m_scenario.host.m4_send_delay);
    const double commanded = interval + InSeconds(streams.CommandOffset());
    const bool is_ins = defs::IsInsDriven(mode);
    const LoopController instrument{
        telescope.instrument_gain, telescope.instrument_leak, {{1.0, m4_by_instrument, m4_lag}}};
    const GpaoSettings& settings = *m_scenario.gpao;
    const LoopController gpao{
        tip_tilt ? settings.tt_gain : settings.gain, settings.leak, {{1.0, m4_by_telescope, m4_lag}}};
    if (!tip_tilt) return {is_ins ? instrument : gpao};
    LoopController field{streams.gain,
                         streams.leak,
                         {{streams.m5_share, commanded, InSeconds(streams.m5_lag)},
                          {streams.ms_share, commanded, InSeconds(telescope.ms_lag)}}};
    switch (mode) {
        case VoskControlMode::TEL_DRIVEN:
            field.mirrors.push_back({streams.u4_share, m4_by_telescope, m4_lag});
            return {field};
        case VoskControlMode::INS_DRIVEN_CASCADE:
            // The instrument's next command takes it along.
            field.mirrors.push_back({streams.u4_share, interval + m4_by_instrument, m4_lag});
            return {field};
        case VoskControlMode::INS_DRIVEN_SEQUENTIAL:
            return {field, instrument};
        default:
            return {field, gpao};
    }
}

template <class Take>
void TelescopeLoop::ForEachExposure(Window window, const Take& take) const {
    const double period = InSeconds(m_scenario.streams->interval);
    const auto first = static_cast<std::size_t>(std::ceil(window.begin / period));
    for (std::size_t k = first; static_cast<double>(k) * period < window.end; ++k) {
        const Seconds time{static_cast<double>(k) * period};
        Modes sky{};
        Modes residual{};
        m_parts.optics->Sky().At(time, sky);
        m_parts.optics->At(time, residual);
        take(time.count(), sky, residual);
    }
}

void TelescopeLoop::FitModes(Fit& fit, VoskControlMode mode, const Group& group, double start,
                             Window window) const {
    const auto controllers = ControllersOf(mode, group.IsTipTilt());
    std::vector<LoopModel> models(group.to - group.from,
                                  LoopModel(controllers, InSeconds(m_scenario.streams->interval)));
    ForEachExposure({start, window.end}, [&](double time, const Modes& sky, const Modes& residual) {
        const bool counts = time >= window.begin;
        for (std::size_t i = group.from; i < group.to; ++i) {
            const double predicted = models[i - group.from].Step(sky[i]);
            if (!counts) continue;
            fit.sky += Square(sky[i]);
            fit.residual += Square(residual[i]);
            fit.predicted += Square(predicted);
            fit.error += Square(residual[i] - predicted);
        }
        if (counts) ++fit.count;
    });
}

void TelescopeLoop::AddLoops(PeerAccount& account) const {
    ReportSection section{
        "The loops against theory",
        {"radians rms", "open", "closed", "predicted", "off", "rejection"},
        {},
        {"Open: the light without mirrors. Predicted: the same light through integrators and "
         "lags with the delays of the scenario's grids, without noise. Left out: while a peer of the loop "
         "was away, and 2 s more."}};
    double worst = 1e9;
    const auto judge = [&](const Segment& segment, const Group& group) {
        Fit fit;
        for (const ClosedStretch& stretch : Closed(segment, group)) {
            const Window window{stretch.begin + SETTLING, stretch.end};
            FitModes(fit, segment.mode, group, stretch.begin, window);
            if (account.plots.empty() && group.IsTipTilt() && window.end - window.begin > REJECTION_SEGMENT)
                account.plots.push_back(PlotRejection(segment.mode, window));
        }
        if (static_cast<double>(fit.count) * InSeconds(m_scenario.streams->interval) < SHORTEST) return;
        const std::string name =
            fmt::format("{:.1f} s, {}, {}", segment.begin, vosk::to_string(segment.mode), group.name);
        section.rows.push_back(
            {name, fmt::format("{:.3f}", fit.Rms(fit.sky)), fmt::format("{:.3f}", fit.Rms(fit.residual)),
             fmt::format("{:.3f}", fit.Rms(fit.predicted)), fmt::format("{:.3f}", fit.Rms(fit.error)),
             fmt::format("{:.2f}", fit.Rejection())});
        worst = std::min(worst, fit.Rejection());
        if (fit.Rms(fit.error) > m_scenario.telescope->max_loop_error * fit.Rms(fit.predicted))
            account.violations.push_back(
                fmt::format("{}: the residual is {:.3f} rms off its prediction", name, fit.Rms(fit.error)));
        if (fit.Rejection() < m_scenario.telescope->min_rejection)
            account.violations.push_back(fmt::format("{}: rejects by {:.2f} only", name, fit.Rejection()));
    };
    for (const Segment& segment : Segments())
        for (const Group& group : GROUPS) judge(segment, group);
    if (section.rows.empty())
        account.violations.emplace_back("no loop was closed for long enough to be judged");
    account.plots.insert(account.plots.begin(), PlotResidual());
    account.achievement = fmt::format("every loop rejects by {:.1f} or more, as theory has it", worst);
    account.sections.push_back(std::move(section));
}

void TelescopeLoop::AddReturns(PeerAccount& account) const {
    const double recovery = InSeconds(m_scenario.expect.recovery);
    ReportSection section{
        "The loops after each return",
        {"radians rms", "open", "closed", "predicted"},
        {},
        {fmt::format("For {:g} s, from {:g} s after the return on; closed may be up to {:g} times predicted.",
                     RETURN_WINDOW, recovery, MOST_EXCESS)}};
    const auto judge = [&](const Segment& segment, const Group& group, const ClosedStretch& stretch) {
        const Window window{stretch.begin + recovery, stretch.begin + recovery + RETURN_WINDOW};
        const std::string name = fmt::format("{:.1f} s, {}, {}", stretch.begin, stretch.after, group.name);
        if (window.end > stretch.end) {
            account.violations.push_back(fmt::format("{}: away again before the loop is judged", name));
            return;
        }
        Fit fit;
        FitModes(fit, segment.mode, group, stretch.begin, window);
        section.rows.push_back({name, fmt::format("{:.3f}", fit.Rms(fit.sky)),
                                fmt::format("{:.3f}", fit.Rms(fit.residual)),
                                fmt::format("{:.3f}", fit.Rms(fit.predicted))});
        if (fit.Excess() > MOST_EXCESS)
            account.violations.push_back(
                fmt::format("{}: {:g} s after the return the residual is {:.1f} times what it should be",
                            name, recovery, fit.Excess()));
    };
    for (const Segment& segment : Segments())
        for (const Group& group : GROUPS)
            for (const ClosedStretch& stretch : Closed(segment, group))
                if (!stretch.after.empty()) judge(segment, group, stretch);
    if (!section.rows.empty()) account.sections.push_back(std::move(section));
}

Plot TelescopeLoop::PlotResidual() const {
    std::vector<double> times;
    std::vector<double> open;
    std::vector<double> tip_tilt;
    std::vector<double> high_order;
    ForEachExposure({0.0, m_scenario.duration.count()},
                    [&](double time, const Modes& sky, const Modes& residual) {
                        times.push_back(time);
                        open.push_back(Rms(sky));
                        tip_tilt.push_back(Rms(std::span(residual).first(TIP_TILT)));
                        high_order.push_back(Rms(std::span(residual).subspan(TIP_TILT)));
                    });
    Plot plot{"The light behind the mirrors", "seconds", "radians rms", false, {}, {}};
    plot.series = {Median(Slice(times, open), "all modes without mirrors", "c"),
                   Median(Slice(times, tip_tilt), "tip and tilt", "a"),
                   Median(Slice(times, high_order), "modes above them", "b")};
    for (const ModeTimeline::Change& change : m_modes.Changes())
        plot.marks.push_back({InSeconds(change.asked - m_first), vosk::to_string(change.mode)});
    return plot;
}

Plot TelescopeLoop::PlotRejection(VoskControlMode mode, Window window) const {
    const double period = InSeconds(m_scenario.streams->interval);
    std::vector<double> sky_power(SPECTRUM_LENGTH / 2 - 1);
    std::vector<double> residual_power(SPECTRUM_LENGTH / 2 - 1);
    for (std::size_t axis = 0; axis < TIP_TILT; ++axis) {
        std::vector<double> sky_values;
        std::vector<double> residual_values;
        ForEachExposure(window, [&](double, const Modes& sky, const Modes& residual) {
            sky_values.push_back(sky[axis]);
            residual_values.push_back(residual[axis]);
        });
        const auto add = [](std::vector<double>& sum, const std::vector<double>& values) {
            const std::vector<double> power = PowerSpectrum(values, SPECTRUM_LENGTH);
            for (std::size_t k = 0; k < sum.size(); ++k) sum[k] += power[k];
        };
        add(sky_power, sky_values);
        add(residual_power, residual_values);
    }
    PlotSeries measured{"measured", "a", PlotSeries::Style::Dots, {}, {}, {}};
    PlotSeries theory{"theory", "b", PlotSeries::Style::Line, {}, {}, {}};
    for (std::size_t k = 1; k <= sky_power.size(); ++k) {
        measured.x.push_back(static_cast<double>(k) / (static_cast<double>(SPECTRUM_LENGTH) * period));
        measured.y.push_back(10.0 * std::log10(residual_power[k - 1] / sky_power[k - 1]));
    }
    // It bends most where the dots are few.
    constexpr std::size_t POINTS_A_DOT = 8;
    for (std::size_t point = 2; point < POINTS_A_DOT * measured.x.size(); ++point)
        theory.x.push_back(static_cast<double>(point) * measured.x.front() / POINTS_A_DOT);
    for (const double value : RejectionAt(ControllersOf(mode, true), period, theory.x))
        theory.y.push_back(20.0 * std::log10(value));
    return {fmt::format("Rejection of tip and tilt from {:.0f} s on", window.begin),
            "hertz",
            "decibel, rejected below 0",
            false,
            {theory, measured},
            {}};
}

}  // namespace vosk::rig
