#include "controlSocket.hpp"

#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace vosk::host {

namespace {

constexpr int BACKLOG = 8;
constexpr int MAX_READY = 32;

[[noreturn]] void Refuse(const std::string& path, const std::string& reason) {
    throw std::runtime_error{fmt::format("control socket {}: {}", path, reason)};
}

[[noreturn]] void RefuseWithErrno(const std::string& path) {
    Refuse(path, std::system_category().message(errno));
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
    if (!fd.IsOpen()) RefuseWithErrno(path);
    return fd;
}

// A socket file without a listener is what a killed host leaves behind.
void RemoveIfLeftBehind(const std::string& path, const sockaddr_un& address) {
    if (::access(path.c_str(), F_OK) != 0) return;
    const UniqueFd probe = MakeSocket(path);
    const bool refused =
        ::connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 &&
        errno == ECONNREFUSED;
    if (!refused) Refuse(path, "another process listens there");
    ::unlink(path.c_str());
}

}  // namespace

void VetSocketPath(const std::string& path) {
    MakeAddress(path);
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode)) {
        Refuse(path, "there is a file of this name that is no socket");
    }
    const auto folder = std::filesystem::absolute(path).parent_path();
    if (::access(folder.c_str(), W_OK | X_OK) != 0) RefuseWithErrno(path);
}

ControlSocket::ControlSocket(const std::string& path)
    : m_path{path}, m_listener{MakeSocket(path)}, m_epoll{::epoll_create1(EPOLL_CLOEXEC)} {
    VetSocketPath(path);
    const sockaddr_un address = MakeAddress(path);
    RemoveIfLeftBehind(path, address);
    // The name must never be there with wider rights, not even for a moment.
    const mode_t former = ::umask(S_IRWXG | S_IRWXO | S_IXUSR);
    const int bound = ::bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    ::umask(former);
    if (bound != 0 || ::listen(m_listener.Get(), BACKLOG) != 0) RefuseWithErrno(path);
    epoll_event event{};
    event.data.fd = m_listener.Get();
    if (::epoll_ctl(m_epoll.Get(), EPOLL_CTL_ADD, m_listener.Get(), &event) != 0) RefuseWithErrno(path);
    Listen(true);
}

ControlSocket::~ControlSocket() {
    ::unlink(m_path.c_str());
}

void ControlSocket::Serve(const CommandHandler& handler) {
    if (!m_listens) Listen(true);
    std::array<epoll_event, MAX_READY> ready{};
    const int count = ::epoll_wait(m_epoll.Get(), ready.data(), MAX_READY, 0);
    for (int i = 0; i < count; ++i) {
        const int fd = ready[static_cast<std::size_t>(i)].data.fd;
        if (fd == m_listener.Get()) {
            AcceptClient();
        } else {
            ServeClient(fd, handler);
        }
    }
}

void ControlSocket::Listen(bool on) {
    epoll_event event{};
    event.events = on ? EPOLLIN : 0U;
    event.data.fd = m_listener.Get();
    ::epoll_ctl(m_epoll.Get(), EPOLL_CTL_MOD, m_listener.Get(), &event);
    m_listens = on;
}

void ControlSocket::AcceptClient() {
    UniqueFd fd{::accept4(m_listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)};
    // Who can't be taken in, for want of descriptors or memory, must not keep the control thread from
    // resting.
    if (!fd.IsOpen()) return Listen(false);
    if (m_clients.size() == MAX_CLIENTS) {
        constexpr std::string_view REFUSAL = "error: too many clients\n";
        [[maybe_unused]] const auto sent = ::send(fd.Get(), REFUSAL.data(), REFUSAL.size(), MSG_NOSIGNAL);
        return;
    }
    const int key = fd.Get();
    WaitFor(m_clients.try_emplace(key, std::move(fd)).first->second, EPOLLIN);
}

void ControlSocket::ServeClient(int fd, const CommandHandler& handler) {
    Client& client = m_clients.at(fd);
    if (!client.stream.Serve(handler)) {
        m_clients.erase(fd);
        return;
    }
    WaitFor(client, client.stream.WaitsFor().events == POLLOUT ? EPOLLOUT : EPOLLIN);
}

void ControlSocket::WaitFor(Client& client, std::uint32_t events) {
    if (events == client.waits_for) return;
    epoll_event event{};
    event.events = events;
    event.data.fd = client.fd.Get();
    ::epoll_ctl(m_epoll.Get(), client.waits_for == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, client.fd.Get(),
                &event);
    client.waits_for = events;
}

}  // namespace vosk::host
