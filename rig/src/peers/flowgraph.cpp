#include "peers/flowgraph.hpp"

#include "host/hostProcess.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <system_error>
#include <utility>

namespace vosk::rig {
namespace {

pktwire::detail::FileDescriptor MakeLog() {
    const int descriptor = memfd_create("flowgraph", MFD_CLOEXEC);
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "memfd_create");
    return pktwire::detail::FileDescriptor(descriptor);
}

std::string NameOf(FlowgraphKind kind) {
    for (const auto& [name, candidate] : FLOWGRAPH_KINDS)
        if (candidate == kind) return name;
    throw std::runtime_error("Unknown kind of flowgraph.");
}

}  // namespace

FlowgraphPart FieldFlowgraphPart(const Scenario& scenario) {
    const StreamSettings& settings = *scenario.streams;
    const auto interval = settings.interval.count();
    FlowgraphPart part;
    part.kind = FlowgraphKind::FieldStabilisation;
    part.record_size = sizeof(FieldRecord);
    part.period = settings.interval;
    part.law = {"--gain",        fmt::to_string(settings.gain),
                "--leak",        fmt::to_string(settings.leak),
                "--error-scale", fmt::to_string(settings.error_scale),
                "--m5-share",    fmt::to_string(settings.m5_share),
                "--ms-share",    fmt::to_string(settings.ms_share),
                "--u4-share",    fmt::to_string(settings.u4_share)};
    part.group = "fieldstabilization";
    part.input = fmt::format(
        "{{busy: {}, shm_topic: fs_in, timeout: {} us, update_interval: {} ms, "
        "update_offset: {} us, diagnostic_mute: true}}",
        scenario.host.busy, interval * 1000 / 8, interval, settings.InputOffset().count());
    part.output = fmt::format(
        "{{busy: {}, shm_topic: fs_out, update_interval: {} ms, update_offset: {} us, "
        "diagnostic_mute: true}}",
        scenario.host.busy, interval, settings.OutputOffset().count());
    part.from_host = {"fs_in", "FS_INPUT"};
    part.to_host = {"fs_out", "FS_OUTPUT"};
    return part;
}

Flowgraph::Flowgraph(const Scenario& scenario, FlowgraphPart part)
    : m_scenario(scenario), m_part(std::move(part)), m_log(MakeLog()) {}

void Flowgraph::AddTo(HostDocument& document) const {
    document.Add(m_part.group, "input", m_part.input);
    document.Add(m_part.group, "output", m_part.output);
}

void Flowgraph::Start(time_point) {
    Spawn();
}

void Flowgraph::TakeStep(const StepAction& action) {
    const auto* life = std::get_if<SetFlowgraphAlive>(&action);
    if (life == nullptr || life->kind != m_part.kind || life->alive == (m_pid > 0)) return;
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
    std::vector<std::string> words{"vosk-rig",   "flowgraph",
                                   "--kind",     NameOf(m_part.kind),
                                   "--prefix",   fmt::format("/{}", ShmPrefix()),
                                   "--priority", fmt::to_string(m_scenario.host.PeerPriority()),
                                   "--log",      fmt::to_string(m_log.Get()),
                                   "--life",     fmt::to_string(m_lives++)};
    words.insert(words.end(), m_part.law.begin(), m_part.law.end());
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
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

std::size_t Flowgraph::LogSize() const {
    return static_cast<std::size_t>(lseek(m_log.Get(), 0, SEEK_END));
}

void Flowgraph::ReadLog(std::size_t place, void* data, std::size_t size) const {
    if (pread(m_log.Get(), data, size, static_cast<off_t>(place)) != static_cast<ssize_t>(size))
        throw std::runtime_error("the log of a flowgraph can't be read");
}

PeerAccount Flowgraph::Account(const RunFacts& facts) const {
    PeerAccount account;
    std::vector<time_point> taken;
    std::vector<time_point> given;
    for (std::size_t place = 0; place + m_part.record_size <= LogSize(); place += m_part.record_size) {
        FlowgraphEntry entry;
        ReadLog(place, &entry, sizeof entry);
        taken.push_back(entry.taken);
        if (entry.delivery != Delivery::Open) given.push_back(entry.given);
    }
    const auto add = [&](const FlowgraphPart::Streams& stream, const std::vector<time_point>& times,
                         const char* received) {
        account.streams.push_back(
            FiguresOfReceived(stream.name, times, m_part.period, facts, stream.host_name, 0));
        account.streams.back().lost.reset();
        account.streams.back().remark = fmt::format("received: {}", received);
        if (account.streams.back().counted) account.streams.back().remark += "; sent: cycles of the host";
    };
    add(m_part.from_host, taken, "by the flowgraph, while it lives");
    add(m_part.to_host, given, "answers of the flowgraph");
    return account;
}

}  // namespace vosk::rig
