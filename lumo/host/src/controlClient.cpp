#include "controlClient.hpp"

#include "uniqueFd.hpp"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace vosk::host {

namespace {

[[noreturn]] void Fail(const std::string& path, int error) {
    throw std::runtime_error{
        fmt::format("control socket {}: {}", path, std::generic_category().message(error))};
}

UniqueFd Connect(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) Fail(path, ENAMETOOLONG);
    std::memcpy(address.sun_path, path.data(), path.size());
    UniqueFd fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    if (!fd.IsOpen() ||
        ::connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        Fail(path, errno);
    return fd;
}

}  // namespace

std::string Ask(const std::string& path, const std::string& line) {
    const UniqueFd fd = Connect(path);
    const std::string sent = line + '\n';
    const ssize_t taken = ::send(fd.Get(), sent.data(), sent.size(), MSG_NOSIGNAL);
    if (taken != static_cast<ssize_t>(sent.size())) Fail(path, taken < 0 ? errno : EMSGSIZE);
    ::shutdown(fd.Get(), SHUT_WR);
    std::string reply;
    std::array<char, 4096> piece{};
    ssize_t count = 0;
    while ((count = ::recv(fd.Get(), piece.data(), piece.size(), 0)) > 0)
        reply.append(piece.data(), static_cast<std::size_t>(count));
    if (!reply.ends_with('\n')) Fail(path, count < 0 ? errno : ECONNRESET);
    reply.pop_back();
    return reply;
}

}  // namespace vosk::host
