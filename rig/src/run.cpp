#include "run.hpp"

#include "report/htmlReport.hpp"
#include "report/table.hpp"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/utsname.h>
#include <unistd.h>

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
// Setpoints of the last commands arrive, and their answers leave.
constexpr auto SETTLING_TIME = 200ms;

// The checking thread may fall behind by a whole run of common length; 350 MB.
constexpr std::size_t LARGEST_RING = 16384;

std::size_t ExpectedCommands(const Scenario& scenario) {
    return static_cast<std::size_t>(scenario.instrument.rate * scenario.duration.count()) + 16;
}

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
    std::thread([&] { may = TakePriority(priority); }).join();
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

}  // namespace

struct Run::Stage {
    Stage(const Scenario& scenario, const Ports& ports, const ModalBasis& basis, SaturationLimits limits,
          HostProcess::Files files)
        : ring(std::min<std::size_t>(ExpectedCommands(scenario), LARGEST_RING)),
          commands(ExpectedCommands(scenario)),
          setpoints(ExpectedCommands(scenario)),
          host(std::move(files)),
          m4(scenario, ports, setpoints, ring),
          check(ContentCheck(scenario, basis, limits, commands, modes), setpoints, ring),
          instrument(scenario, ports, commands) {}

    SetpointRing ring;
    AppendLog<CommandRecord> commands;
    AppendLog<SetpointRecord> setpoints;
    ModeTimeline modes;
    HostProcess host;
    M4Peer m4;
    CheckThread check;
    Instrument instrument;
    bool host_stopped = false;
    std::size_t next_step = 0;
    time_point next_status;
};

std::filesystem::path ModalBasisPath(const std::filesystem::path& directory, std::uint32_t modes) {
    return directory / fmt::format("m2p_{}.fits", modes);
}

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

Run::Run(Scenario scenario, RunPaths paths)
    : m_scenario(std::move(scenario)), m_paths(std::move(paths)), m_lock(LockDirectory(m_paths.out)) {}

void Run::Interrupt() noexcept {
    g_interrupted = true;
}

bool Run::Execute() {
    const std::uint32_t modes = m_scenario.host.managed_modes;
    const std::filesystem::path basis_file = std::filesystem::absolute(ModalBasisPath(m_paths.data, modes));
    const ModalBasis basis = ProvideModalBasis(basis_file, modes);
    const SaturationLimits limits = ChooseLimits(basis, m_scenario);
    const Ports ports = Ports::FindFree();
    const std::filesystem::path out = std::filesystem::absolute(m_paths.out);
    WriteTextFile(out / "host.yaml", MakeHostDocument(m_scenario, ports, basis_file, limits));

    m_progress.Say(fmt::format("scenario {}: {}", m_scenario.name, m_scenario.description));
    Stage stage(
        m_scenario, ports, basis, limits,
        {m_paths.host, out / "host.yaml", std::filesystem::relative(out / "host.sock"), out / "host.log"});
    stage.host.WaitReady(HOST_SETUP_PATIENCE);
    if (stage.host.Status().priority_refused || !MayTakePriority(m_scenario.host.PeerPriority())) {
        m_facts.advice = AdviseOnPriority(m_scenario.host.PeerPriority());
        m_progress.Say(m_facts.advice);
    }

    m_first = NextGridPoint(AtomClk::now() + 200ms, m_scenario.CommandPeriod());
    stage.m4.Start(m_first);
    stage.check.Start();
    stage.instrument.Start(m_first);
    Drive(stage);
    End(stage);
    return Report(stage);
}

void Run::Drive(Stage& stage) {
    const time_point end =
        m_first + std::chrono::duration_cast<std::chrono::nanoseconds>(m_scenario.duration);
    for (time_point now = AtomClk::now(); now < end; now = AtomClk::now()) {
        const Seconds time = now - m_first;
        while (stage.next_step < m_scenario.steps.size() && m_scenario.steps[stage.next_step].at <= time) {
            const Step& step = m_scenario.steps[stage.next_step++];
            m_progress.Say(fmt::format("{:7.3f} s  {}", time.count(), ToString(step)));
            TakeStep(stage, step);
        }
        if (!stage.host_stopped && !stage.host.Running())
            m_facts.trouble =
                fmt::format("the host ended by itself {:.3f} s after the first command", time.count());
        if (g_interrupted) m_facts.trouble = fmt::format("interrupted after {:.3f} s", time.count());
        if (m_facts.trouble) return;
        PollHost(stage);
        ShowProgress(stage, time.count());
        // A step that is close is not slept over.
        time_point wake = now + DRIVE_STEP;
        if (stage.next_step < m_scenario.steps.size())
            wake = std::min(wake, m_first + std::chrono::duration_cast<std::chrono::nanoseconds>(
                                                m_scenario.steps[stage.next_step].at));
        SleepUntil(wake);
    }
}

void Run::TakeStep(Stage& stage, const Step& step) {
    struct Take {
        Run& run;
        Stage& stage;
        void operator()(const SetMode& action) const { run.ChangeMode(stage, action.mode); }
        void operator()(const SetM4Alive& action) const { stage.m4.SetAlive(action.alive); }
        void operator()(const SetCommandsValid& action) const { stage.instrument.SetValid(action.valid); }
        void operator()(const SetInstrumentSilent& action) const {
            stage.instrument.SetSilent(action.silent);
        }
        void operator()(const rig::StopHost&) const { run.StopHost(stage); }
    };
    try {
        std::visit(Take{*this, stage}, step.action);
    } catch (const std::runtime_error& error) {
        m_facts.trouble = fmt::format("step '{}' failed: {}", ToString(step), error.what());
    }
}

void Run::ChangeMode(Stage& stage, defs::VoskControlMode mode) {
    const std::size_t change = stage.modes.Ask(mode, AtomClk::now());
    stage.host.Ask("mode " + vosk::to_string(mode));
    stage.modes.Complete(change, AtomClk::now());
}

void Run::StopHost(Stage& stage) {
    AskStatus(stage);
    m_facts.stop_asked = AtomClk::now();
    stage.host_stopped = true;
    stage.host.Terminate();
    m_facts.host_exit = stage.host.WaitExit(m_scenario.expect.host_stop + 2s);
    m_facts.stop_took = AtomClk::now() - *m_facts.stop_asked;
}

void Run::AskStatus(Stage& stage) {
    const time_point asked = AtomClk::now();
    m_facts.status = stage.host.Status();
    m_facts.status_time = asked;
}

void Run::PollHost(Stage& stage) {
    if (stage.host_stopped || AtomClk::now() < stage.next_status) return;
    stage.next_status = AtomClk::now() + STATUS_INTERVAL;
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
    figures.commands = stage.commands.Entries().size();
    figures.setpoints = stage.m4.Received();
    figures.checked = stage.check.Checked();
    figures.wrong = stage.check.Wrong();
    const auto setpoints = stage.setpoints.Entries();
    const auto recent = setpoints.last(std::min<std::size_t>(setpoints.size(), 500));
    std::vector<double> lateness;
    for (const SetpointRecord& setpoint : recent)
        lateness.push_back(MicrosecondsOf(setpoint.arrived - setpoint.planned));
    figures.late_p99 = SpreadOf(std::move(lateness)).p99;
    m_progress.Show(figures);
}

void Run::End(Stage& stage) {
    stage.instrument.Stop();
    SleepUntil(AtomClk::now() + SETTLING_TIME);
    if (!stage.host_stopped) {
        try {
            AskStatus(stage);
            m_facts.at_rest = true;
        } catch (const std::runtime_error& error) {
            if (!m_facts.trouble) m_facts.trouble = error.what();
        }
        stage.host.Terminate();
        m_facts.host_exit = stage.host.WaitExit(m_scenario.expect.host_stop + 2s);
    }
    stage.m4.Stop();
    m_progress.Close();
    if (const auto left = stage.setpoints.Entries().size() - stage.check.Checked(); left > 500)
        m_progress.Say(fmt::format("checking the last {} setpoints", left));
    stage.check.Finish();
}

bool Run::Report(Stage& stage) {
    m_facts.start = m_first;
    m_facts.commands = stage.commands.Entries();
    m_facts.setpoints = stage.setpoints.Entries();
    m_facts.checked = stage.check.Results();
    m_facts.modes = stage.modes.Changes();
    m_facts.m4_absences = stage.m4.GetAbsences().All();
    m_facts.incomplete_setpoints = stage.m4.IncompleteSetpoints();
    m_facts.foreign_packets = stage.m4.ForeignPackets();
    m_facts.log_overflow = stage.commands.Refused() + stage.setpoints.Refused();
    m_facts.instrument_overruns = stage.instrument.Overruns();

    const Accounts accounts = MakeAccounts(m_scenario, m_facts);
    const Figures figures = MakeFigures(m_scenario, m_facts, accounts, stage.m4.GetFeedbackCounts());
    const RunReport report = MakeReport(m_scenario, m_facts, accounts, figures);
    fmt::print("{}", MakeTable(report));
    const std::filesystem::path page = m_paths.out / "report.html";
    WriteTextFile(page, MakeHtmlReport(report, m_scenario, m_facts, accounts, DescribeMachine()));
    fmt::print("report: {}\n", page.string());
    return accounts.Holds();
}

}  // namespace vosk::rig
