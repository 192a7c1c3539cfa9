#include "host.hpp"

#include "statusReport.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/voskHandoverManager.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>
#include <vosk/common/logSetup.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/telegraf/telemSender.hpp>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace vosk::host {

using common::telegraf::TelemSender;
using lumo::RuntimeMonitor;
using lumo::VoskHandoverManager;

namespace {

// As the library has done: once more says why it could not.
int LockMemory() {
    return lumo::SetRTParameters() == 0 ? 0 : errno;
}

constexpr const char* NOT_TAKEN = "no imaging camera has taken it; the log has the reason of each";
constexpr const char* NO_IMAGING_CAMERA = "there is no imaging camera";

std::vector<CameraState> CameraStates() {
    std::vector<CameraState> states;
    for (const auto& [name, camera] : defs::CAMERAS) {
        const auto figures = RuntimeMonitor::GetInstance().Of(camera);
        states.push_back({camera, figures.state->GetTopicData(), figures.statistics->GetLateCount(),
                          figures.frames->GetTopicData()});
    }
    return states;
}

// A handover takes a few cycles of 2 ms; its steps are worth seeing.
constexpr std::chrono::milliseconds LOOK_DURING_HANDOVER{5};
constexpr std::chrono::milliseconds LOOK_OTHERWISE{50};

// For the signal handler, which knows no object.
std::atomic<int> signal_event{-1};
std::atomic<bool> stop_came{false};
std::atomic<bool> hang_up_came{false};

void NoteSignal(int signal) {
    const int error = errno;
    (signal == SIGHUP ? hang_up_came : stop_came).store(true);
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(signal_event.load(), &one, sizeof(one));
    errno = error;
}

sigset_t SignalSet() {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&signals, signal);
    return signals;
}

void Handle(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    ::sigaction(signal, &action, nullptr);
}

}  // namespace

Signals::Signals(bool log_has_file) : m_event{::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)} {
    if (!m_event.IsOpen()) throw std::runtime_error{"signals can't be received"};
    signal_event.store(m_event.Get());
    const sigset_t signals = SignalSet();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    Handle(SIGINT, NoteSignal);
    Handle(SIGTERM, NoteSignal);
    if (log_has_file) Handle(SIGHUP, NoteSignal);
}

Signals::~Signals() {
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) Handle(signal, SIG_IGN);
    signal_event.store(-1);
}

void Signals::Admit() {
    const sigset_t signals = SignalSet();
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

Signals::Taken Signals::Take() const {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto got = ::read(m_event.Get(), &count, sizeof(count));
    return {stop_came.exchange(false), hang_up_came.exchange(false)};
}

Host::Host(const gim::Config& config, const HostSettings& settings, bool serve_stdin)
    : m_library{settings.shm_prefix.value_or(DEFAULT_SHM_PREFIX)}, m_memory_error{LockMemory()} {
    if (serve_stdin) m_terminal.emplace(STDIN_FILENO, STDOUT_FILENO);
    TelemSender::m_default_telegraph_host_ip_addr = settings.telegraf_address;
    TelemSender::m_default_telegraph_port = settings.telegraf_port;
    nodepin::default_priority = settings.priority;
    lumo::ResetControlState();
    m_library.SetupThreads(config);
    WarnIfNoCpuToSpare(ThreadStates());
    try {
        m_library.StartThreads();
        ShowMachine();
        // Last: who can connect finds a running system.
        if (settings.control_socket) m_socket.emplace(*settings.control_socket);
    } catch (...) {
        m_library.StopThreads();
        throw;
    }
}

Host::~Host() {
    m_library.StopThreads();
}

std::set<std::string> Host::Run(const Signals& signals) {
    common::LogInfo("Running with {} threads.", m_library.GetThreads().size());
    common::LimitRepeatedLines();
    Signals::Admit();
    while (m_running) {
        LookAtControlState();
        LookAtThreads();
        LookAtClock();
        WaitForWork(signals);
    }
    LookAtThreads();
    common::LogInfo("Stopping.");
    return m_threads_ended;
}

void Host::WaitForWork(const Signals& signals) {
    const bool handover_runs = VoskHandoverManager::IsOnTheWay(m_state.handover_state);
    const auto wait = handover_runs ? LOOK_DURING_HANDOVER : LOOK_OTHERWISE;
    const CommandHandler handler = [this](const std::string& line) { return Execute(line, *this); };
    constexpr pollfd NOTHING{-1, 0, 0};
    std::vector<pollfd> sources{{signals.GetFd(), POLLIN, 0}, m_terminal ? m_terminal->WaitsFor() : NOTHING};
    if (m_socket) m_socket->AppendSources(sources);
    if (::poll(sources.data(), sources.size(), static_cast<int>(wait.count())) < 0) return;
    if (sources[0].revents != 0) Serve(signals.Take());
    if (m_socket) m_socket->Serve(handler);
    if (sources[1].revents != 0 && !m_terminal->Serve(handler)) {
        common::LogInfo("No more commands from standard input.");
        m_terminal.reset();
    }
}

void Host::SetMode(defs::VoskControlMode mode, std::optional<defs::Camera> camera) {
    m_library.SetVoskMode(mode, camera);
    LookAtControlState();
}

void Host::SetCamera(defs::Camera camera) {
    m_library.SetVoskMode(m_library.GetControlMode(), camera);
    LookAtControlState();
}

void Host::Serve(Signals::Taken taken) {
    if (taken.stop) Stop();
    if (!taken.hang_up) return;
    try {
        common::ReopenLog();
    } catch (const std::runtime_error& error) {
        common::LogError("{}; the log goes on in the former file", error.what());
    }
}

void Host::ShowMachine() {
    m_machine = LookAtMachine(ThreadStates(), m_memory_error);
    common::LogInfo("{}", ToLine(m_machine));
    if (m_machine.tai_offset != 0) return;
    common::LogWarn(
        "The kernel does not know how far TAI is ahead of UTC: all times are UTC, 37 s behind those of peers "
        "that know. chrony (leapsectz right/UTC) or ptp4l with phc2sys sets it.");
}

void Host::LookAtControlState() {
    const VoskHandoverManager& handover = VoskHandoverManager::GetInstance();
    m_state.mode = m_library.GetControlMode();
    m_state.camera = m_library.GetActiveCameraFs();
    m_state.handover_state = handover.GetState();
    m_state.source = handover.GetM4CmdSource();
    m_events.Look(m_state, atomclk::AtomClk::now());
}

void Host::LookAtThreads() {
    for (const auto& [name, thread] : m_library.GetThreads()) {
        if (!thread->HasEndedByItself() || !m_threads_ended.insert(name).second) continue;
        common::LogError(
            "Thread {} has ended by itself; nobody serves its stream until the host starts again.", name);
    }
}

std::vector<ThreadState> Host::ThreadStates() const {
    return StatesOf(m_library.GetThreads());
}

void Host::LookAtClock() {
    const auto step = m_clock_watch.Look(atomclk::AtomClk::now(), ClockWatch::Steady::now());
    if (!step) return;
    RuntimeMonitor::GetInstance().m_command_counts->clock_steps.fetch_add(1, std::memory_order_relaxed);
    common::LogWarn("The clock was set by {} ms.",
                    std::chrono::duration_cast<std::chrono::milliseconds>(*step).count());
}

void Host::SetReference(const ReferenceBox& reference) {
    const auto [ref_x, ref_y, box_x, box_y] = reference;
    if (!m_library.SetImageProcessing_CRef(ref_x, ref_y, box_x, box_y)) throw std::runtime_error{NOT_TAKEN};
}

ReferenceBox Host::GetReference() {
    if (m_library.GetImageProcessing_COpt().option == 0) throw std::runtime_error{NO_IMAGING_CAMERA};
    const auto [ref_x, ref_y] = m_library.GetImageProcessing_RefPos();
    const auto [box_x, box_y] = m_library.GetImageProcessing_CentBox();
    return {ref_x, ref_y, box_x, box_y};
}

void Host::SetCentroiding(const lumo::COptions& options) {
    if (!m_library.SetImageProcessing_COpt(options.option, options.threshold, options.nbrightest))
        throw std::runtime_error{NOT_TAKEN};
}

lumo::COptions Host::GetCentroiding() {
    const auto options = m_library.GetImageProcessing_COpt();
    if (options.option == 0) throw std::runtime_error{NO_IMAGING_CAMERA};
    return options;
}

void Host::SetCentering(bool enabled) {
    enabled ? m_library.EnableGPCentering() : m_library.DisableGPCentering();
}

bool Host::GetCentering() {
    return lumo::VoskTelescopeStateManager::GetGPCenteringEnabled();
}

std::string Host::Status() {
    LookAtControlState();
    LookAtThreads();
    m_machine.tai_offset = ReadTaiOffset();  // a daemon may have set it since
    const lumo::PerformanceData& performance = RuntimeMonitor::GetPerformanceData();
    host::Status status{.control = m_state,
                        .handover_running = VoskHandoverManager::IsOnTheWay(m_state.handover_state),
                        .mode_to_be_set_again = VoskHandoverManager::GetInstance().IsModeToBeSetAgain(),
                        .gp_centering = lumo::VoskTelescopeStateManager::GetGPCenteringEnabled(),
                        .record = RuntimeMonitor::GetStateData().GetTopicData(),
                        .machine = m_machine,
                        .threads = ThreadStates(),
                        .threads_ended = {m_threads_ended.begin(), m_threads_ended.end()},
                        .streams = {},
                        .cameras = CameraStates(),
                        .counts = lumo::Read(*RuntimeMonitor::GetInstance().m_command_counts),
                        .commands = performance.GetDataTopic(),
                        .wavefront = performance.GetWavefrontMetricData(),
                        .field_stabilisation = performance.GetFSTelemetryData(),
                        .log_dropped = common::DroppedLogLines(),
                        .events = m_events.Get()};
    for (const auto& stream : RuntimeMonitor::GetInstance().m_stream_states) {
        status.streams.push_back(stream->GetTopicData());
    }
    return ToJson(status);
}

}  // namespace vosk::host
