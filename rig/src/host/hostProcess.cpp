#include "host/hostProcess.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

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

// A host that was killed leaves its names in shared memory behind.
void RemoveShmOfHost() {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ignored))
        if (entry.path().filename().string().starts_with(ShmPrefix()))
            std::filesystem::remove(entry, ignored);
}

}  // namespace

std::string ShmPrefix() {
    return fmt::format("vosk_rig_{}_", getpid());
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
