#include "judge/gpaoLoop.hpp"

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <array>
#include <utility>

namespace vosk::rig {
namespace {

constexpr std::size_t MOST_PREDICTED = 100'000;  // subapertures, some seconds

FlowgraphPart GpaoFlowgraphPart(const Scenario& scenario, const GpaoFiles& files) {
    const GpaoSettings& settings = *scenario.gpao;
    const CameraSettings& camera = *scenario.Wfs();
    // From pixels to the radians by which M4 takes the light's modes off.
    const auto gain = [&](double value) { return fmt::to_string(value / camera.pixels_per_radian); };
    const auto timeout = std::chrono::duration_cast<std::chrono::microseconds>(camera.Period()).count() / 8;
    const auto element = [&](const char* topic, const char* key, const std::filesystem::path& file) {
        return fmt::format("{{busy: {}, shm_topic: {}, timeout: {} us, {}: {}, diagnostic_mute: true}}",
                           scenario.host.busy, topic, timeout, key, YAML::Dump(YAML::Node(file.string())));
    };
    FlowgraphPart part;
    part.kind = FlowgraphKind::Gpao;
    part.record_size = sizeof(GpaoRecord);
    part.period = camera.Period();
    part.law = {"--gain", gain(settings.gain),          "--tt-gain", gain(settings.tt_gain),
                "--leak", fmt::to_string(settings.leak)};
    part.group = "gpao";
    part.input = element("gpao_in", "ins2gpao_path", files.ins2gpao);
    part.output = element("gpao_out", "gpao2ins_path", files.gpao2ins);
    part.from_host.name = "gpao_in";
    part.to_host.name = "gpao_out";
    return part;
}

ReportSection BooksOf(const GpaoAccounts& accounts) {
    const std::vector<HopAccount> hops{accounts.frames, accounts.commands};
    ReportSection section = DescribeHops("GPAO, hop by hop", hops);
    section.notes.push_back(
        fmt::format("{} whole frames while no flowgraph lived; {} records of gpao_in lost, {} whole frames "
                    "without a sample ID; {} answers of the flowgraph wrong.",
                    accounts.dead, accounts.lost_inputs, accounts.unnumbered, accounts.wrong_answers));
    section.notes.push_back(fmt::format(
        "{} coefficients of {} records scatter by {:.4f} times the noise that the light gives them.",
        accounts.errors.values, accounts.errors.records, accounts.errors.InNoise()));
    return section;
}

}  // namespace

const Flowgraph* AddGpaoPeers(const Scenario& scenario, const CameraPeer& camera,
                              const std::filesystem::path& files, std::vector<std::unique_ptr<Peer>>& peers) {
    auto flowgraph =
        std::make_unique<Flowgraph>(scenario, GpaoFlowgraphPart(scenario, WriteGpaoFiles(files)));
    auto loop = std::make_unique<GpaoLoop>(scenario, camera, *flowgraph);
    const Flowgraph* const made = flowgraph.get();
    peers.push_back(std::move(flowgraph));
    peers.push_back(std::move(loop));
    return made;
}

PeerAccount GpaoLoop::Account(const RunFacts& run) const {
    const CameraScene& scene = m_camera.Scene();
    const CoefficientPredictor predictor(scene);
    const std::vector<GpaoRecord> records = m_flowgraph.Records<GpaoRecord>();
    const std::vector<Absences::Absence> absences = m_flowgraph.GetAbsences().All();
    GpaoFacts facts;
    facts.frames = m_camera.Frames();
    facts.flowgraph = records;
    facts.absences = absences;
    facts.truth = [&](Seconds light) { return predictor.Truth(light); };
    facts.predict = [&](Seconds light) { return predictor.Predict(light); };
    facts.stride = records.size() * scene.Regions().size() / MOST_PREDICTED + 1;
    facts.ring = scene.Settings().ring;
    facts.has_m4 = m_scenario.ao_loop;
    facts.first = run.start;
    facts.until = m_flowgraph.SilentSince();
    const GpaoAccounts accounts = MakeGpaoAccounts(m_scenario, facts);

    PeerAccount account;
    account.violations = accounts.violations;
    account.sections = {BooksOf(accounts)};
    account.times = {{"WFS frame sent to record taken by GPAO", SpreadOf(accounts.frames.delays)},
                     {"record taken to answer of GPAO given", SpreadOf(accounts.answering)}};
    account.achievement = fmt::format("GPAO: {} frames reached the flowgraph, with {:.3f} times their noise",
                                      accounts.frames.right, accounts.errors.InNoise());
    account.plots = {PlotModes(accounts, facts, run)};
    return account;
}

// Tip and defocus.
Plot GpaoLoop::PlotModes(const GpaoAccounts& accounts, const GpaoFacts& facts, const RunFacts& run) const {
    constexpr std::array<std::size_t, 2> MODES{0, 2};
    std::array<PlotSeries, 2> truth{{{"tip of the light", "a", PlotSeries::Style::Line, {}, {}, {}},
                                     {"its third mode", "c", PlotSeries::Style::Line, {}, {}, {}}}};
    std::array<PlotSeries, 2> found{{{"tip in gpao_in", "b", PlotSeries::Style::Dots, {}, {}, {}},
                                     {"third mode in gpao_in", "bad", PlotSeries::Style::Dots, {}, {}, {}}}};
    const double scale = 1.0 / m_camera.Scene().Settings().pixels_per_radian;
    for (const FrameRecord& frame : facts.frames) {
        const ModeValues light = facts.truth(frame.view.light);
        for (std::size_t i = 0; i < MODES.size(); ++i) {
            truth[i].x.push_back(run.SecondsSinceStart(frame.exposed));
            truth[i].y.push_back(scale * light[MODES[i]]);
        }
    }
    for (std::size_t i = 0; i < facts.flowgraph.size(); ++i) {
        if (!accounts.frame_of[i]) continue;
        const FrameRecord& frame = facts.frames[*accounts.frame_of[i]];
        for (std::size_t j = 0; j < MODES.size(); ++j) {
            found[j].x.push_back(run.SecondsSinceStart(frame.exposed));
            found[j].y.push_back(scale * double{facts.flowgraph[i].in.coefficients[MODES[j]]});
        }
    }
    return {"GPAO: coefficients and the light",
            "s after the start",
            "radians",
            false,
            {truth[0], found[0], truth[1], found[1]},
            {}};
}

}  // namespace vosk::rig
