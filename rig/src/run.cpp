#include "run.hpp"

#include "files.hpp"
#include "host/hostProcess.hpp"
#include "judge/hostJudge.hpp"
#include "report/htmlReport.hpp"
#include "report/table.hpp"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <nodepin/nodepin.hpp>

#include <atomic>
#include <ctime>
#include <thread>
#include <utility>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;

// A signal handler may touch no more than this.
std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

constexpr auto HOST_SETUP_PATIENCE = 30s;  // a sanitized host on a busy machine reads its matrix slowly
constexpr auto DRIVE_STEP = 5ms;
constexpr auto STATUS_INTERVAL = 1000ms;
constexpr auto LOOK_INTERVAL = 200ms;  // where the status tells the centroids of an ALICE
// Setpoints of the last commands arrive, and their answers leave.
constexpr auto SETTLING_TIME = 200ms;

std::string DescribeMachine() {
    utsname system{};
    uname(&system);
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    return fmt::format("{:%Y-%m-%d %H:%M:%S} UTC, {} {} {}, {} processors", utc, system.sysname,
                       system.release, system.machine, std::thread::hardware_concurrency());
}

time_point NextGridPoint(time_point time, std::chrono::nanoseconds period) {
    const auto count = time.time_since_epoch();
    return time_point{(count / period + 1) * period};
}

// Tried on a thread of its own, which takes the priority with it.
bool MayTakePriority(int priority) {
    bool may = false;
    const auto look = [&] { may = nodepin::PriorityOfThisThread() == priority; };
    nodepin::MakeThread("Priority", {{}, {}, priority}, look).join();
    return may;
}

std::string AdviseOnPriority(int priority) {
    const passwd* user = getpwuid(getuid());  // NOLINT(concurrency-mt-unsafe): asked once
    return fmt::format(
        "No right to real-time priority: other load delays the loop, and the verdict may not hold. For this "
        "shell: "
        "sudo prlimit --pid $$ --rtprio={0}; for good: a line \"{1} - rtprio {0}\" in "
        "/etc/security/limits.d/vosk.conf and a new login.",
        priority, user == nullptr ? "*" : user->pw_name);
}

// Held for the life of the descriptor, and by nobody else: a host that is started doesn't inherit it.
pktwire::detail::FileDescriptor LockDirectory(const std::filesystem::path& directory) {
    std::filesystem::create_directories(directory);
    const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor >= 0 && flock(descriptor, LOCK_EX | LOCK_NB) == 0)
        return pktwire::detail::FileDescriptor(descriptor);
    const int error = errno;
    if (descriptor >= 0) close(descriptor);
    throw std::runtime_error(
        error == EWOULDBLOCK
            ? fmt::format(
                  "{}: another run is using this directory; wait for its end, or give this one another with "
                  "--out",
                  directory.string())
            : fmt::format("{}: {}", directory.string(), std::generic_category().message(error)));
}

// The projection matrix that is there, or one that is made now.
ModalBasis ProvideModalBasis(const std::filesystem::path& file, std::uint32_t modes) {
    if (std::filesystem::exists(file)) {
        ModalBasis basis = ReadModalBasis(file);
        if (basis.modes == modes) return basis;
        throw std::runtime_error(
            fmt::format("{}: {} modes, but the scenario manages {}", file.string(), basis.modes, modes));
    }
    std::filesystem::create_directories(file.parent_path());
    ModalBasis basis = MakeModalBasis(modes);
    WriteModalBasis(file, basis);
    return basis;
}

LoopCalibration ProvideCalibration(const Scenario& scenario, const std::filesystem::path& directory) {
    const std::uint32_t modes = scenario.host.managed_modes;
    const auto file = std::filesystem::absolute(directory / fmt::format("m2p_{}.fits", modes));
    LoopCalibration calibration{file, ProvideModalBasis(file, modes), {}};
    calibration.limits = ChooseLimits(calibration.basis, scenario);
    return calibration;
}

}  // namespace

// Everything that lives during a run. The peers refer to the modes, and outlive the host.
struct Run::Stage {
    Stage() = default;
    // Peers refer to those before them in the list.
    ~Stage() {
        while (!peers.empty()) peers.pop_back();
    }
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    ModeTimeline modes;
    std::vector<std::unique_ptr<Peer>> peers;
    std::unique_ptr<HostProcess> host;
    bool host_stopped = false;
    std::size_t next_step = 0;
    time_point next_status;
};

Run::Run(Scenario scenario, RunPaths paths)
    : m_scenario(std::move(scenario)), m_paths(std::move(paths)), m_lock(LockDirectory(m_paths.out)) {}

void Run::Interrupt() noexcept {
    g_interrupted = true;
}

bool Run::Execute() {
    const LoopCalibration calibration = ProvideCalibration(m_scenario, m_paths.data);
    const std::filesystem::path out = std::filesystem::absolute(m_paths.out);
    m_progress.Say(fmt::format("scenario {}: {}", m_scenario.name, m_scenario.description));
    Stage stage;
    stage.peers = MakePeers(m_scenario, calibration, stage.modes, Ports::Free(), out / "cameras");
    if (!m_scenario.cameras.empty()) {
        const std::filesystem::path cameras =
            out / "cameras";                    // the host finds the descrambling vector there
        setenv("CFGPATH", cameras.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): one thread
    }
    const HostProcess::Files files{m_paths.host, out / "host.yaml",
                                   std::filesystem::relative(out / "host.sock"), out / "host.log"};
    WriteTextFile(files.document, MakeHostDocument(m_scenario, stage.peers));
    stage.host = std::make_unique<HostProcess>(files);
    stage.host->WaitReady(HOST_SETUP_PATIENCE);
    if (stage.host->Status().priority_refused || !MayTakePriority(m_scenario.host.PeerPriority())) {
        m_facts.advice = AdviseOnPriority(m_scenario.host.PeerPriority());
        m_progress.Say(m_facts.advice);
    }

    if (m_scenario.gpao) stage.host->Ask("camera " + vosk::to_string(m_scenario.Wfs()->camera));

    m_facts.start = NextGridPoint(AtomClk::now() + 200ms, m_scenario.CommandPeriod());
    for (const auto& peer : stage.peers) peer->Start(m_facts.start);
    Drive(stage);
    End(stage);
    return Report(stage);
}

void Run::Drive(Stage& stage) {
    const time_point end =
        m_facts.start + std::chrono::duration_cast<std::chrono::nanoseconds>(m_scenario.duration);
    for (time_point now = AtomClk::now(); now < end; now = AtomClk::now()) {
        const Seconds time = now - m_facts.start;
        while (stage.next_step < m_scenario.steps.size() && m_scenario.steps[stage.next_step].at <= time) {
            const Step& step = m_scenario.steps[stage.next_step++];
            m_progress.Say(fmt::format("{:7.3f} s  {}", time.count(), ToString(step)));
            TakeStep(stage, step);
        }
        if (!stage.host_stopped && !stage.host->Running())
            m_facts.trouble =
                fmt::format("the host ended by itself {:.3f} s after the first command", time.count());
        if (g_interrupted) m_facts.trouble = fmt::format("interrupted after {:.3f} s", time.count());
        if (m_facts.trouble) return;
        PollHost(stage);
        ShowProgress(stage, time.count());
        // A step that is close is not slept over.
        time_point wake = now + DRIVE_STEP;
        if (stage.next_step < m_scenario.steps.size())
            wake = std::min(wake, m_facts.start + std::chrono::duration_cast<std::chrono::nanoseconds>(
                                                      m_scenario.steps[stage.next_step].at));
        SleepUntil(wake);
    }
}

void Run::TakeStep(Stage& stage, const Step& step) {
    try {
        if (const auto* change = std::get_if<SetMode>(&step.action)) ChangeMode(stage, change->mode);
        if (std::holds_alternative<rig::StopHost>(step.action)) StopHost(stage);
        TellHost(stage, step.action);
        for (const auto& peer : stage.peers) peer->TakeStep(step.action);
    } catch (const std::runtime_error& error) {
        m_facts.trouble = fmt::format("step '{}' failed: {}", ToString(step), error.what());
    }
}

void Run::ChangeMode(Stage& stage, defs::VoskControlMode mode) {
    const std::size_t change = stage.modes.Ask(mode, AtomClk::now());
    stage.host->Ask("mode " + vosk::to_string(mode));
    stage.modes.Complete(change, AtomClk::now());
}

// Commands for the imaging cameras, and for the guide probes.
void Run::TellHost(Stage& stage, const StepAction& action) {
    std::string line;
    if (const auto* change = std::get_if<SetReference>(&action))
        line = fmt::format("reference {} {} {} {}", change->reference[0], change->reference[1],
                           change->box[0], change->box[1]);
    if (const auto* change = std::get_if<SetCentroiding>(&action))
        line = change->option == 1   ? fmt::format("centroiding tsh {}", change->threshold)
               : change->option == 2 ? fmt::format("centroiding nbr {}", change->nbrightest)
                                     : "centroiding cog";
    if (const auto* change = std::get_if<SetCentering>(&action))
        line = change->on ? "centering on" : "centering off";
    if (line.empty()) return;
    const time_point asked = AtomClk::now();
    stage.host->Ask(line);
    m_facts.commands.push_back({asked, AtomClk::now(), action});
}

void Run::StopHost(Stage& stage) {
    AskStatus(stage);
    m_facts.stop_asked = AtomClk::now();
    stage.host_stopped = true;
    stage.host->Terminate();
    m_facts.host_exit = stage.host->WaitExit(m_scenario.expect.host_stop + 2s);
    m_facts.stop_took = AtomClk::now() - *m_facts.stop_asked;
}

void Run::AskStatus(Stage& stage) {
    const time_point asked = AtomClk::now();
    m_facts.status = stage.host->Status();
    m_facts.status_time = asked;
    m_facts.status_answered = AtomClk::now();
    if (!m_scenario.cameras.empty()) m_facts.looks.push_back({asked, AtomClk::now(), m_facts.status.cameras});
}

void Run::PollHost(Stage& stage) {
    if (stage.host_stopped || AtomClk::now() < stage.next_status) return;
    stage.next_status = AtomClk::now() + (m_scenario.cameras.empty() ? STATUS_INTERVAL : LOOK_INTERVAL);
    try {
        AskStatus(stage);
    } catch (const std::runtime_error& error) {
        m_facts.trouble = error.what();
    }
}

void Run::ShowProgress(Stage& stage, double time) {
    if (!m_progress.IsDue(time)) return;
    ProgressFigures figures;
    figures.time = time;
    figures.duration = m_scenario.duration.count();
    figures.mode = stage.host_stopped ? "host stopped" : m_facts.status.mode;
    figures.source = m_facts.status.source;
    for (const auto& peer : stage.peers) {
        const std::string words = peer->Progress();
        if (!words.empty()) figures.peers += (figures.peers.empty() ? "" : ", ") + words;
    }
    m_progress.Show(figures);
}

void Run::End(Stage& stage) {
    for (const auto& peer : stage.peers) peer->FallSilent();
    // Between two commands, which the host repeats while its flowgraph is silent.
    const auto grid = m_scenario.streams ? m_scenario.streams->interval : 1ms;
    SleepUntil(NextGridPoint(AtomClk::now() + SETTLING_TIME, grid));
    if (!stage.host_stopped) {
        try {
            AskStatus(stage);
            m_facts.at_rest = true;
        } catch (const std::runtime_error& error) {
            if (!m_facts.trouble) m_facts.trouble = error.what();
        }
        stage.host->Terminate();
        m_facts.host_exit = stage.host->WaitExit(m_scenario.expect.host_stop + 2s);
    }
    m_progress.Close();
    for (const auto& peer : stage.peers) peer->Stop();
}

bool Run::Report(Stage& stage) {
    m_facts.modes = stage.modes.Changes();
    std::vector<PeerAccount> accounts;
    for (const auto& peer : stage.peers) accounts.push_back(peer->Account(m_facts));
    const RunReport report = MakeReport(m_scenario, m_facts, JudgeHost(m_scenario, m_facts), accounts);
    fmt::print("{}", MakeTable(report));
    const std::filesystem::path page = m_paths.out / "report.html";
    WriteTextFile(page, MakeHtmlReport(report, DescribeMachine()));
    fmt::print("report: {}\n", page.string());
    return report.Holds();
}

}  // namespace vosk::rig
