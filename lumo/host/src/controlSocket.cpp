#include "controlSocket.hpp"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vosk/common/logger.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace vosk::host {

namespace {

constexpr int BACKLOG = 8;

[[noreturn]] void Refuse(const std::string& path, const std::string& reason) {
    common::LogAndThrow(fmt::format("control socket {}: {}", path, reason));
}

// Of errno.
std::string Reason() {
    return std::system_category().message(errno);
}

sockaddr_un MakeAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        Refuse(path, fmt::format("the path must have 1 to {} bytes", sizeof(address.sun_path) - 1));
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

UniqueFd MakeSocket(const std::string& path) {
    UniqueFd fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    if (!fd.IsOpen()) Refuse(path, Reason());
    return fd;
}

// Not of what a link points to.
std::optional<struct stat> StatusOf(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return std::nullopt;
    return status;
}

void VetFolder(const std::string& path) {
    const auto folder = std::filesystem::absolute(path).parent_path();
    if (::access((folder / "").c_str(), W_OK | X_OK) == 0) return;
    Refuse(path, fmt::format("its directory {}: {}", folder.string(), Reason()));
}

// A socket without a listener is what a killed host leaves behind.
void VetSocketThere(const std::string& path, const sockaddr_un& address) {
    const UniqueFd probe = MakeSocket(path);
    const bool connected =
        ::connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    if (connected || errno == EAGAIN) Refuse(path, "another process listens there");
    if (errno != ECONNREFUSED) Refuse(path, "a socket of this name can't be tried: " + Reason());
}

}  // namespace

void VetSocketPath(const std::string& path) {
    const sockaddr_un address = MakeAddress(path);
    VetFolder(path);
    const auto status = StatusOf(path);
    if (!status) return;
    if (!S_ISSOCK(status->st_mode)) Refuse(path, "there is a file of this name that is no socket");
    VetSocketThere(path, address);
}

ControlSocket::ControlSocket(const std::string& path) : m_path{path}, m_listener{MakeSocket(path)} {
    VetSocketPath(path);
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
        Refuse(path, "what a former process left can't be removed: " + Reason());
    const sockaddr_un address = MakeAddress(path);
    // The name must never be there with wider rights, not even for a moment.
    const mode_t former = ::umask(S_IRWXG | S_IRWXO | S_IXUSR);
    const int bound = ::bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    ::umask(former);
    if (bound != 0 || ::listen(m_listener.Get(), BACKLOG) != 0) Refuse(path, Reason());
    m_file = StatusOf(path).value_or(m_file);
}

ControlSocket::~ControlSocket() {
    const auto now = StatusOf(m_path);
    const bool is_ours = now && now->st_dev == m_file.st_dev && now->st_ino == m_file.st_ino;
    if (is_ours) ::unlink(m_path.c_str());
}

// A client that can't be accepted must not keep the control thread from resting.
void ControlSocket::AppendSources(std::vector<pollfd>& sources) const {
    if (m_is_accepting) sources.push_back({m_listener.Get(), POLLIN, 0});
    for (const Client& client : m_clients) sources.push_back(client.stream.WaitsFor());
}

void ControlSocket::Serve(const CommandHandler& handler) {
    AcceptClient();
    std::erase_if(m_clients, [&handler](Client& client) { return !client.stream.Serve(handler); });
}

void ControlSocket::AcceptClient() {
    UniqueFd fd{::accept4(m_listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)};
    m_is_accepting = fd.IsOpen() || errno == EAGAIN;
    if (!fd.IsOpen()) return;
    if (m_clients.size() == MAX_CLIENTS) {
        constexpr std::string_view REFUSAL = "error: too many clients\n";
        [[maybe_unused]] const auto sent = ::send(fd.Get(), REFUSAL.data(), REFUSAL.size(), MSG_NOSIGNAL);
        return;
    }
    m_clients.emplace_back(std::move(fd));
}

}  // namespace vosk::host
