// vosk-rig: the bench telescope. Exit code 0 if the verdict of the run holds, 1 if it doesn't, 2 if the run
// could not be made.

#include "cameras/cameraFiles.hpp"
#include "cameras/showFrame.hpp"
#include "files.hpp"
#include "peers/flowgraphProcess.hpp"
#include "run.hpp"

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <vosk/common/logSetup.hpp>
#include <vosk/defs/sizes.hpp>

#include <csignal>
#include <exception>
#include <map>
#include <string>

namespace vosk::rig {
namespace {

// The tree's root is where the build directory stands in; without one, the working directory serves.
std::filesystem::path FindRoot() {
    for (auto directory = std::filesystem::current_path();; directory = directory.parent_path()) {
        if (std::filesystem::exists(directory / "CMakePresets.json")) return directory;
        if (directory == directory.parent_path()) return std::filesystem::current_path();
    }
}

std::filesystem::path HostBesideRig() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() /
           "lumo/host/vosk-host";
}

struct DataOptions {
    std::filesystem::path directory;
    std::uint32_t modes = 200;
    std::uint64_t seed = 1;
    std::size_t subapertures = WfsGrid::MOST;
};

int MakeData(const DataOptions& options) {
    const std::filesystem::path directory = std::filesystem::absolute(options.directory);
    Scenario scenario;
    scenario.name = "make-data";
    scenario.host.managed_modes = options.modes;
    std::filesystem::create_directories(directory);
    LoopCalibration calibration{directory / "m2p.fits", MakeModalBasis(options.modes), {}};
    WriteModalBasis(calibration.basis_file, calibration.basis);
    WriteGpaoFiles(directory);
    calibration.limits = ChooseLimits(calibration.basis, scenario);
    scenario.duration = Seconds{1.0};  // these peers never start, and need little memory
    const ModeTimeline modes;
    const auto peers = MakePeers(scenario, calibration, modes, Ports::From(47801), directory);
    WriteTextFile(directory / "host.yaml", MakeHostDocument(scenario, peers));
    WriteCameraFiles(directory, MakeCameraSet(options.seed, options.subapertures));
    fmt::print(
        "{}: {} modes by {} actuators\n{}: a configuration for vosk-host\n"
        "{}: what the cameras of seed {} are like; set CFGPATH to {}\n",
        calibration.basis_file.string(), options.modes, defs::M4_CMD_SIZE, (directory / "host.yaml").string(),
        (directory / "cameras.yaml").string(), options.seed, directory.string());
    return 0;
}

int RunScenario(const std::filesystem::path& file, RunPaths paths, double seconds) {
    Scenario scenario = LoadScenario(file);
    if (seconds > 0.0) scenario.ChangeDuration(Seconds{seconds});
    if (paths.out.empty()) paths.out = FindRoot() / "run" / scenario.name;
    if (paths.data.empty()) paths.data = paths.out.parent_path() / "data";
    if (paths.host.empty()) paths.host = HostBesideRig();
    struct sigaction action {};
    action.sa_handler = [](int) { Run::Interrupt(); };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    return Run(std::move(scenario), std::move(paths)).Execute() ? 0 : 1;
}

int Main(int argc, char** argv) {
    common::OpenStandardDescriptors();
    common::SetupLogging(log4cplus::WARN_LOG_LEVEL);
    CLI::App app("The bench telescope: simulated peers around vosk-host, and a verdict on what they saw.");
    app.set_version_flag("--version", "vosk-rig " VOSK_VERSION);
    app.require_subcommand(1);

    DataOptions data;
    CLI::App* make_data =
        app.add_subcommand("make-data", "Write calibration data and a configuration for the host");
    make_data->add_option("directory", data.directory, "where to write")->required();
    make_data->add_option("--modes", data.modes, "managed modes")->check(CLI::Range(2, 4866));
    make_data->add_option("--seed", data.seed, "which sensors the cameras have");
    make_data
        ->add_option("--subapertures", data.subapertures, "of the wavefront sensor, nearest to its middle")
        ->check(CLI::Range(WfsGrid::FEWEST, WfsGrid::MOST));

    std::filesystem::path file;
    RunPaths paths;
    double seconds = 0.0;
    CLI::App* run = app.add_subcommand("run", "Run a scenario and judge it");
    run->add_option("scenario", file, "the scenario's YAML file")->required()->check(CLI::ExistingFile);
    run->add_option("--host", paths.host, "the host's program; else the one built beside this one");
    run->add_option("--out", paths.out, "directory for document, log and report; else run/NAME in the tree");
    run->add_option("--data", paths.data, "directory for calibration data; else beside the former");
    run->add_option("--seconds", seconds, "length of the run instead of the scenario's")
        ->check(CLI::PositiveNumber);

    ShowFrameOptions picture;
    CLI::App* show_frame = app.add_subcommand("show-frame", "Draw a camera's cleaned frame with its ROIs");
    show_frame->add_option("out", picture.out, "the PNG file to write")->required();
    show_frame->add_option("--camera", picture.camera, "lisa, alice or marana")
        ->check(CLI::IsMember({"lisa", "alice", "marana"}));
    show_frame->add_option("--seed", picture.seed, "of sensor, noise and spots, as for make-data");
    show_frame
        ->add_option("--frame", picture.frame,
                     "a FITS file with a raw frame to show instead of a rendered one")
        ->check(CLI::ExistingFile);
    FlowgraphOptions flowgraph_options;
    CLI::App* flowgraph = app.add_subcommand("flowgraph", "Of a run's own")->group("");
    flowgraph->add_option("--kind", flowgraph_options.kind)
        ->required()
        ->transform(CLI::Transformer(
            std::map<std::string, FlowgraphKind>(FLOWGRAPH_KINDS.begin(), FLOWGRAPH_KINDS.end())));
    flowgraph->add_option("--prefix", flowgraph_options.shm_prefix)->required();
    flowgraph->add_option("--gain", flowgraph_options.gain)->required();
    flowgraph->add_option("--tt-gain", flowgraph_options.tt_gain);
    flowgraph->add_option("--leak", flowgraph_options.leak)->required();
    flowgraph->add_option("--error-scale", flowgraph_options.error_scale);
    flowgraph->add_option("--m5-share", flowgraph_options.m5_share);
    flowgraph->add_option("--ms-share", flowgraph_options.ms_share);
    flowgraph->add_option("--u4-share", flowgraph_options.u4_share);
    flowgraph->add_option("--priority", flowgraph_options.priority)->required();
    flowgraph->add_option("--log", flowgraph_options.log)->required();
    flowgraph->add_option("--life", flowgraph_options.life)->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }

    if (flowgraph->parsed()) return RunFlowgraph(flowgraph_options);
    if (make_data->parsed()) return MakeData(data);
    if (show_frame->parsed()) {
        ShowFrame(picture);
        return 0;
    }
    return RunScenario(file, std::move(paths), seconds);
}

}  // namespace
}  // namespace vosk::rig

int main(int argc, char** argv) {
    try {
        return vosk::rig::Main(argc, argv);
    } catch (const std::exception& error) {
        fmt::print(stderr, "vosk-rig: {}\n", error.what());
        return 2;
    }
}
