#include "host/hostProcess.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <yaml-cpp/yaml.h>
#include <nlohmann/json.hpp>

#include <array>
#include <csignal>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;

// A reply takes the host's control thread a moment; a second of silence means that it hangs.
constexpr auto REPLY_PATIENCE = 5000ms;

[[noreturn]] void ThrowSystemError(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// The last lines of a file, for a message about what went wrong.
std::string TailOf(const std::filesystem::path& file) {
    constexpr std::size_t LENGTH = 1500;
    std::ifstream input(file);
    const std::string text{std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>()};
    return text.size() <= LENGTH ? text : "..." + text.substr(text.size() - LENGTH);
}

bool IsFree(std::uint16_t port) {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const bool free = bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(descriptor);
    return free;
}

std::string ShmPrefix() {
    return fmt::format("vosk_rig_{}_", getpid());
}

// A host that was killed leaves its names in shared memory behind.
void RemoveShmOfHost() {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ignored))
        if (entry.path().filename().string().starts_with(ShmPrefix()))
            std::filesystem::remove(entry, ignored);
}

}  // namespace

Ports Ports::FindFree() {
    // Below the range from which the system gives ports to sockets that ask for none, so that a free one
    // stays free until the host or M4 takes it; each rig begins elsewhere.
    constexpr int FIRST = 20'000;
    constexpr int COUNT = 12'000;
    std::array<std::uint16_t, 4> ports{};
    std::size_t found = 0;
    for (int i = 0; i < COUNT && found < ports.size(); ++i) {
        const auto port = static_cast<std::uint16_t>(FIRST + (getpid() * 16 + i) % COUNT);
        if (IsFree(port)) ports[found++] = port;
    }
    if (found < ports.size()) throw std::runtime_error("no free UDP port on the loopback interface");
    return {ports[0], ports[1], ports[2], ports[3]};
}

std::string MakeHostDocument(const Scenario& scenario, const Ports& ports, const std::filesystem::path& basis,
                             SaturationLimits limits) {
    const HostSettings& host = scenario.host;
    const auto input = [&](std::uint16_t port, std::uint32_t topic) {
        return fmt::format(
            "{{busy: {}, timeout: \"50 ms\", listen_ip: 127.0.0.1, listen_udp: {}, iface_name: lo, "
            "rxbuf_size: 4194304, qudex_topic: {}}}",
            host.busy, port, topic);
    };
    return fmt::format(
        "# Written by vosk-rig for the scenario '{}'.\n"
        "host: {{priority: {}}}\n"
        "cfg:\n"
        "  ao:\n"
        "    wavefront_cmd_stream:\n"
        "      - {}\n"
        "    ao_tasks:\n"
        "      - busy: {}\n"
        "        m4_send_delay: {} us\n"
        "        m4_response_timeout: {} us\n"
        "        gpao_highest_mode: {}\n"
        "        delta_scaling: {}\n"
        "        managed_modes: {}\n"
        "        m2p_path: {}\n"
        "        threshold_velocity: {:.9g}\n"
        "        threshold_gap: {:.9g}\n"
        "  m4:\n"
        "    output:\n"
        "      - {{busy: {}, send_interval: \"2 ms\", send_offset: \"0 us\", ip_dest: 127.0.0.1, udp_dest: "
        "{}, "
        "qudex_topic: {}}}\n"
        "    input:\n"
        "      - {}\n"
        "    feedback:\n"
        "      - {}\n",
        scenario.name, host.priority, input(ports.wavefront_command, Topics::WAVEFRONT_COMMAND), host.busy,
        host.m4_send_delay.count(), host.m4_response_timeout.count(), host.gpao_highest_mode,
        host.delta_scaling, host.managed_modes, YAML::Dump(YAML::Node(basis.string())), limits.velocity,
        limits.gap, host.busy, ports.setpoint, Topics::SETPOINT,
        input(ports.setpoint_applied, Topics::SETPOINT_APPLIED), input(ports.feedback, Topics::FEEDBACK));
}

HostStatus ParseHostStatus(const std::string& json) {
    try {
        const auto report = nlohmann::json::parse(json);
        HostStatus status;
        report.at("mode").get_to(status.mode);
        report.at("source").get_to(status.source);
        report.at("handover_state").get_to(status.handover_state);
        report.at("log_dropped").get_to(status.log_dropped);
        for (const auto& thread : report.at("threads"))
            if (thread.at("priority") > 0 && thread.at("priority_given") == 0) status.priority_refused = true;
        for (const auto& stream : report.at("streams"))
            status.streams[stream.at("name")] = {stream.at("samples"), stream.at("invalid"),
                                                 stream.at("lost"), stream.at("dropped_packets")};
        for (const auto& [name, count] : HOST_COUNTS)
            report.at("counts").at(name).get_to(status.counts.*count);
        for (const auto& event : report.at("events"))
            status.events.push_back({atomclk::AtomClk::time_point{
                                         std::chrono::nanoseconds{event.at("time_ns").get<std::int64_t>()}},
                                     event.at("text")});
        return status;
    } catch (const nlohmann::json::exception& error) {
        throw std::runtime_error(fmt::format("the host's status can't be read: {}: {}", error.what(), json));
    }
}

HostProcess::HostProcess(Files files) : m_files(std::move(files)) {
    if (access(m_files.program.c_str(), X_OK) != 0)
        throw std::runtime_error(fmt::format("{}: no such program; build vosk-host or name it with --host",
                                             m_files.program.string()));
    std::filesystem::remove(m_files.socket);
    const int log = open(m_files.log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (log < 0) ThrowSystemError(m_files.log.string());
    // Names of its own in shared memory, so that a second run beside this one does no harm.
    const std::array<std::string, 6> words{
        m_files.program.string(), m_files.document.string(),      "--control", m_files.socket.string(),
        "--shm-prefix",           fmt::format("/{}", ShmPrefix())};
    std::array<char*, words.size() + 1> arguments{};
    for (std::size_t i = 0; i < words.size(); ++i) arguments[i] = const_cast<char*>(words[i].c_str());
    const int no_input = open("/dev/null", O_RDONLY | O_CLOEXEC);

    m_pid = fork();
    if (m_pid == 0) {
        // Between fork and exec only what is safe after a signal. The host must not outlive a rig that
        // crashed, and an interrupt from the terminal is the rig's to handle: it ends the run in order.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        setpgid(0, 0);
        dup2(no_input, STDIN_FILENO);
        dup2(log, STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    close(log);
    close(no_input);
    if (m_pid < 0) ThrowSystemError("fork");
}

HostProcess::~HostProcess() {
    if (m_connection >= 0) close(m_connection);
    EndByForce();
    RemoveShmOfHost();
}

void HostProcess::WaitReady(std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < deadline) {
        if (!Running())
            throw std::runtime_error(
                fmt::format("the host ended with code {} while it was set up; its log:\n{}", *m_exit,
                            TailOf(m_files.log)));
        Connect();
        if (m_connection >= 0) {
            Status();
            return;
        }
        std::this_thread::sleep_for(20ms);
    }
    throw std::runtime_error(
        fmt::format("the host doesn't answer on its control socket; its log:\n{}", TailOf(m_files.log)));
}

void HostProcess::Connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = m_files.socket.string();
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error(fmt::format("{}: too long for the path of a socket", path));
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connection < 0) ThrowSystemError("socket");
    if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        m_connection = connection;
    else
        close(connection);
}

std::string HostProcess::Ask(const std::string& line) {
    const std::string request = line + "\n";
    if (send(m_connection, request.data(), request.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size()))
        throw std::runtime_error("the host has closed its control socket");
    const auto deadline = std::chrono::steady_clock::now() + REPLY_PATIENCE;
    for (;;) {
        if (const std::size_t end = m_received.find('\n'); end != std::string::npos) {
            std::string reply = m_received.substr(0, end);
            m_received.erase(0, end + 1);
            if (reply.rfind("error", 0) == 0) throw std::runtime_error("the host: " + reply);
            return reply;
        }
        pollfd wait{m_connection, POLLIN, 0};
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || poll(&wait, 1, static_cast<int>(left.count())) == 0)
            throw std::runtime_error(fmt::format("the host gives no answer to '{}'", line));
        std::array<char, 4096> buffer{};
        const ssize_t count = recv(m_connection, buffer.data(), buffer.size(), 0);
        if (count <= 0) throw std::runtime_error("the host has closed its control socket");
        m_received.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

HostStatus HostProcess::Status() {
    return ParseHostStatus(Ask("status"));
}

bool HostProcess::Running() {
    CheckExit();
    return !m_exit;
}

void HostProcess::CheckExit() {
    if (m_exit) return;
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) != m_pid) return;
    m_exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void HostProcess::EndByForce() {
    if (!Running()) return;
    kill(m_pid, SIGTERM);
    if (WaitExit(3000ms)) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

void HostProcess::Terminate() {
    if (Running()) kill(m_pid, SIGTERM);
}

std::optional<int> HostProcess::WaitExit(std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (Running() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(2ms);
    return m_exit;
}

}  // namespace vosk::rig
