#include "judge/cameraAccount.hpp"

#include "judge/cameraPictures.hpp"
#include "report/plots.hpp"

#include <fmt/format.h>
#include <vosk/defs/sizes.hpp>

#include <algorithm>
#include <utility>

namespace vosk::rig {
namespace {

class Describer {
public:
    Describer(const Scenario& scenario, const RunFacts& run, const CameraScene& scene, std::uint64_t seed,
              const CameraFacts& facts)
        : m_scenario(scenario),
          m_run(run),
          m_scene(scene),
          m_seed(seed),
          m_facts(facts),
          m_name(vosk::to_string(scene.Settings().camera)),
          m_accounts(AccountForFrames(facts, scene.Settings().kind)),
          m_methods(scene, TakesCommands() ? run.commands : std::vector<HostCommand>{}) {
        m_errors = facts.published ? MeasureErrors(facts, m_accounts, scene, m_methods, run.start)
                                   : MeasureLooks(facts, scene, m_methods, run.looks, run.start);
    }

    PeerAccount Describe() const {
        PeerAccount account;
        account.violations = JudgeFrames(m_name, m_scene.Settings().kind, m_facts, m_accounts, m_run,
                                         m_scenario.expect.max_exceptions);
        for (std::string& violation : JudgeErrors(m_name, m_errors))
            account.violations.push_back(std::move(violation));
        account.achievement = fmt::format("{}: {} of {} frames led to a result", m_name, m_accounts.processed,
                                          m_facts.frames.size());
        if (m_errors.values > 0)
            account.achievement +=
                fmt::format(", with {:.3f} times the noise that the light gives them", m_errors.InNoise());
        std::vector<time_point> sent;
        FaultCounts faults;
        for (const FrameRecord& frame : m_facts.frames) {
            sent.push_back(frame.begun);
            faults.Add(frame.fault);
        }
        account.streams = {FiguresOfSent(m_name, sent, m_scene.Settings().Period(), m_run, m_name)};
        account.faults = FiguresOfFaults(m_scenario, StreamOf(m_scene.Settings().camera), faults,
                                         HostCountsOf(m_run, m_name));
        account.sections = {Frames()};
        if (m_errors.values > 0 || m_errors.unpredicted > 0) account.sections.push_back(Errors());
        AddTimes(account);
        AddPlots(account);
        AddPictures(account);
        return account;
    }

private:
    // The host's commands go to the ALICE cameras, and to other imaging cameras only where there are none.
    bool TakesCommands() const {
        if (m_scene.IsWfs()) return false;
        const auto is_alice = [](const CameraSettings& camera) { return camera.kind == CameraKind::Alice; };
        return std::any_of(m_scenario.cameras.begin(), m_scenario.cameras.end(), is_alice) ==
               is_alice(m_scene.Settings());
    }

    ReportSection Frames() const {
        const auto row = [](const char* name, std::uint64_t count, const char* meaning) {
            return std::vector<std::string>{name, fmt::to_string(count), meaning};
        };
        ReportSection section{m_name + ": frames", {"what became of them", "count", ""}, {}, {}};
        section.rows = {row("processed", m_accounts.processed, "their result was seen in shared memory")};
        const auto add = [&](const char* name, std::uint64_t count, const char* meaning) {
            if (count > 0) section.rows.push_back(row(name, count, meaning));
        };
        add("unseen", m_accounts.unseen,
            m_facts.published ? "processed; a newer result took the place before the watch looked"
                              : "this camera's results are not shown: the host's counts tell");
        add("refused", m_accounts.refused, "spoilt on their way, and not used");
        add("used", m_accounts.used, "spoilt on their way, and used all the same");
        add("lost", m_accounts.lost, "whole, and without a result");
        if (const HostCamera* camera = m_run.FindCamera(m_name)) {
            section.rows.push_back(row("host: processed", camera->processed, "as the host counts"));
            add("host: late", camera->late, "their work was not done when the next frame came");
            section.notes.push_back(
                fmt::format("Processing took {:.0f} us (p50), {:.0f} us (p99), as the host measures.",
                            camera->p50, camera->p99));
        }
        add("rig overran", m_facts.overruns, "never sent, as the rig itself was late");
        return section;
    }

    ReportSection Errors() const {
        ReportSection section{m_name + ": centroids against the light", {"", "value"}, {}, {}};
        const auto count = static_cast<double>(std::max<std::uint64_t>(m_errors.values, 1));
        section.rows = {{"centroids compared", fmt::to_string(m_errors.values / 2)},
                        {"error against the light, pixels rms",
                         fmt::format("{:.4f}", std::sqrt(m_errors.error_squares / count))},
                        {"the same as theory has it",
                         fmt::format("{:.4f}", std::sqrt(m_errors.expected_squares / count))},
                        {"scatter in units of the noise", fmt::format("{:.4f}", m_errors.InNoise())}};
        if (m_errors.repaired > 0)
            section.rows.push_back(
                {fmt::format("worst of {} over a repaired pixel, pixels", m_errors.repaired),
                 fmt::format("{:.4f}", m_errors.repaired_worst)});
        if (m_errors.unpredicted > 0)
            section.rows.push_back(
                {fmt::format("worst of {} over the brightest pixels, pixels", m_errors.unpredicted),
                 fmt::format("{:.4f}", m_errors.unpredicted_worst)});
        return section;
    }

    // Without the first frame, during which the host writes files.
    void AddTimes(PeerAccount& account) const {
        std::vector<double> rendering;
        std::vector<double> transfer;
        for (const FrameRecord& frame : m_facts.frames) {
            rendering.push_back(MicrosecondsOf(frame.begun - frame.exposed));
            transfer.push_back(MicrosecondsOf(frame.sent - frame.begun));
        }
        account.times = {{m_name + ": exposure to first packet", SpreadOf(std::move(rendering))},
                         {m_name + ": first packet to last", SpreadOf(std::move(transfer))}};
        std::vector<double> time;
        std::vector<double> latency;
        for (std::size_t i = 0; i < m_facts.results.size(); ++i) {
            if (m_accounts.frame_of[i].value_or(0) == 0) continue;
            const FrameRecord& frame = m_facts.frames[*m_accounts.frame_of[i]];
            time.push_back(m_run.SecondsSinceStart(frame.exposed));
            latency.push_back(MicrosecondsOf(m_facts.results[i].seen - frame.sent));
        }
        if (latency.empty()) return;
        account.times.emplace_back(m_name + ": last packet to result", SpreadOf(latency));
        account.plots.push_back(
            PlotOverTime(m_name + ": last packet sent to result seen", time, latency, Marks()));
        account.plots.push_back(Histogram(m_name + ": distribution of that time", "frames", latency));
    }

    void AddPlots(PeerAccount& account) const {
        const auto line = [&](const char* title, const std::vector<double>& found,
                              const std::vector<double>& truth) {
            account.plots.push_back({fmt::format("{}: {}", m_name, title),
                                     "s after the start",
                                     "pixels",
                                     false,
                                     {{"true", "c", PlotSeries::Style::Line, m_errors.time, truth, {}},
                                      {"found", "bad", PlotSeries::Style::Dots, m_errors.time, found, {}}},
                                     Marks()});
        };
        if (m_errors.time.empty()) return;
        line("mean spot in x", m_errors.tip, m_errors.true_tip);
        line("mean spot in y", m_errors.tilt, m_errors.true_tilt);
        account.plots.push_back({m_name + ": error against the light",
                                 "s after the start",
                                 "pixels rms",
                                 false,
                                 {{"", "a", PlotSeries::Style::Line, m_errors.time, m_errors.rms, {}}},
                                 Marks()});
        account.plots.push_back({m_name + ": centroids less what theory expects",
                                 "x, pixels",
                                 "y, pixels",
                                 false,
                                 {{"", "a", PlotSeries::Style::Dots, m_errors.error_x, m_errors.error_y, {}}},
                                 {}});
        if (m_scene.IsWfs()) AddModes(account);
    }

    // The host shows slopes, not coefficients: these are the rig's own reconstruction from them.
    void AddModes(PeerAccount& account) const {
        constexpr std::uint32_t DEFOCUS = 2;
        const std::uint32_t modes = defs::GPAO_CMD_SIZE;
        const std::vector<float> matrix = MakeControlMatrix(m_scene.Grid(), modes);
        PlotSeries found{"from the host's slopes", "bad", PlotSeries::Style::Dots, {}, {}, {}};
        PlotSeries truth{"true", "c", PlotSeries::Style::Line, {}, {}, {}};
        for (std::size_t i = 0; i < m_facts.results.size(); ++i) {
            const auto slopes = m_facts.slopes_of(m_facts.results[i]);
            if (!m_accounts.frame_of[i] || 2 * slopes.size() * modes != matrix.size()) continue;
            const FrameRecord& frame = m_facts.frames[*m_accounts.frame_of[i]];
            double sum = 0.0;
            for (std::size_t j = 0; j < slopes.size(); ++j)
                sum += double{matrix[2 * j * modes + DEFOCUS]} * slopes[j].x +
                       double{matrix[(2 * j + 1) * modes + DEFOCUS]} * slopes[j].y;
            found.x.push_back(m_run.SecondsSinceStart(frame.exposed));
            found.y.push_back(sum / m_scene.Settings().pixels_per_radian);
            truth.y.push_back(m_scene.CoefficientsAt(frame.view.light)[DEFOCUS]);
        }
        truth.x = found.x;
        account.plots.push_back(
            {m_name + ": third mode", "s after the start", "radians", false, {truth, found}, Marks()});
    }

    void AddPictures(PeerAccount& account) const {
        for (std::size_t i = m_facts.results.size(); i-- > 0;) {
            const ResultRecord& result = m_facts.results[i];
            const auto slopes = m_facts.slopes_of(result);
            if (slopes.empty() || !m_accounts.frame_of[i]) continue;
            const FrameRecord& frame = m_facts.frames[*m_accounts.frame_of[i]];
            const Centroiding* const centroiding = m_methods.Find(frame.sent, result.seen);
            if (centroiding == nullptr) continue;
            account.pictures.push_back(DrawFrame(m_scene, m_seed, frame, slopes, centroiding->regions));
            if (m_scene.IsWfs()) account.pictures.push_back(DrawSlopes(m_scene, frame, slopes));
            return;
        }
    }

    bool Concerns(const StepAction& action) const {
        const auto is_this = [&](const auto& step) {
            if constexpr (requires { step.camera; }) return step.camera == m_scene.Settings().camera;
            return false;
        };
        const bool is_command =
            std::holds_alternative<SetCentroiding>(action) || std::holds_alternative<SetReference>(action);
        return std::visit(is_this, action) || (is_command && TakesCommands());
    }

    std::vector<PlotMark> Marks() const {
        std::vector<PlotMark> marks;
        for (const Step& step : m_scenario.steps)
            if (Concerns(step.action)) marks.push_back({step.at.count(), ToString(step)});
        return marks;
    }

    const Scenario& m_scenario;
    const RunFacts& m_run;
    const CameraScene& m_scene;
    const std::uint64_t m_seed;
    const CameraFacts& m_facts;
    const std::string m_name;
    const FrameAccounts m_accounts;
    const MethodTimeline m_methods;
    SpotErrors m_errors;
};

}  // namespace

PeerAccount CameraJudge::Account(const RunFacts& run) const {
    CameraFacts facts;
    facts.frames = m_camera.Frames();
    facts.overruns = m_camera.Overruns();
    if (const SimOutWatch* const watch = m_camera.Watch()) {
        facts.results = watch->Log().Entries();
        facts.published = watch->Published();
        facts.slopes_of = [watch](const ResultRecord& result) { return watch->SlopesOf(result); };
    }
    return Describer(m_scenario, run, m_camera.Scene(), m_camera.Seed(), facts).Describe();
}

}  // namespace vosk::rig
