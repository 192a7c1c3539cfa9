#include "peers/flowgraph.hpp"

#include "host/hostProcess.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <system_error>

namespace vosk::rig {
namespace {

pktwire::detail::FileDescriptor MakeLog() {
    const int descriptor = memfd_create("flowgraph", MFD_CLOEXEC);
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "memfd_create");
    return pktwire::detail::FileDescriptor(descriptor);
}

}  // namespace

Flowgraph::Flowgraph(const Scenario& scenario)
    : m_scenario(scenario), m_settings(*scenario.streams), m_log(MakeLog()) {}

void Flowgraph::AddTo(HostDocument& document) const {
    const auto interval = m_settings.interval.count();
    document.Add(
        "fieldstabilization", "input",
        fmt::format("{{busy: {}, shm_topic: fs_in, timeout: {} us, update_interval: {} ms, "
                    "update_offset: {} us, diagnostic_mute: true}}",
                    m_scenario.host.busy, interval * 1000 / 8, interval, m_settings.InputOffset().count()));
    document.Add("fieldstabilization", "output",
                 fmt::format("{{busy: {}, shm_topic: fs_out, update_interval: {} ms, update_offset: {} us, "
                             "diagnostic_mute: true}}",
                             m_scenario.host.busy, interval, m_settings.OutputOffset().count()));
}

void Flowgraph::Start(time_point) {
    Spawn();
}

void Flowgraph::TakeStep(const StepAction& action) {
    const auto* life = std::get_if<SetFlowgraphAlive>(&action);
    if (life == nullptr || life->alive == (m_pid > 0)) return;
    if (life->alive) {
        Spawn();
        m_absences.End(AtomClk::now());
        return;
    }
    m_absences.Begin(AtomClk::now());
    Kill();
}

void Flowgraph::FallSilent() {
    m_silent_since = AtomClk::now();
    if (m_pid <= 0) return;
    kill(m_pid, SIGTERM);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

void Flowgraph::Spawn() {
    const std::array<std::string, 14> words{"vosk-rig",   "flowgraph",
                                            "--prefix",   fmt::format("/{}", ShmPrefix()),
                                            "--gain",     fmt::format("{}", m_settings.gain),
                                            "--leak",     fmt::format("{}", m_settings.leak),
                                            "--priority", fmt::to_string(m_scenario.host.PeerPriority()),
                                            "--log",      fmt::to_string(m_log.Get()),
                                            "--life",     fmt::to_string(m_lives++)};
    std::array<char*, words.size() + 1> arguments{};
    for (std::size_t i = 0; i < words.size(); ++i) arguments[i] = const_cast<char*>(words[i].c_str());
    m_pid = fork();
    if (m_pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (m_pid > 0) return;
    // Between fork and exec only what is safe after a signal. An interrupt from the terminal is the rig's.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    setpgid(0, 0);
    fcntl(m_log.Get(), F_SETFD, 0);
    execv("/proc/self/exe", arguments.data());
    _exit(127);
}

void Flowgraph::Kill() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

std::vector<FlowgraphRecord> Flowgraph::Records() const {
    const off_t size = lseek(m_log.Get(), 0, SEEK_END);
    std::vector<FlowgraphRecord> records(static_cast<std::size_t>(size) / sizeof(FlowgraphRecord));
    const std::size_t bytes = records.size() * sizeof(FlowgraphRecord);
    if (pread(m_log.Get(), records.data(), bytes, 0) != static_cast<ssize_t>(bytes)) return {};
    return records;
}

PeerAccount Flowgraph::Account(const RunFacts& facts) const {
    PeerAccount account;
    std::vector<time_point> taken;
    std::vector<time_point> given;
    for (const FlowgraphRecord& record : Records()) {
        taken.push_back(record.taken);
        given.push_back(record.given);
    }
    account.streams = {FiguresOfReceived("fs_in", taken, m_settings.interval, facts, "FS_INPUT", 0),
                       FiguresOfReceived("fs_out", given, m_settings.interval, facts, "FS_OUTPUT", 0)};
    for (StreamFigures& stream : account.streams) {
        stream.lost.reset();
        stream.remark = "received: by the flowgraph, while it lives; sent: cycles of the host";
    }
    account.streams[1].remark = "received: answers of the flowgraph; sent: cycles of the host";
    return account;
}

}  // namespace vosk::rig
