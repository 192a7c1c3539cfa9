#pragma once

#include "../src/uniqueFd.hpp"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <string>

namespace vosk::host {

// A socket that is bound or connected to the path, or none.
inline UniqueFd MakeSocketAt(const std::string& path, int (*attach)(int, const sockaddr*, socklen_t)) {
    UniqueFd fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (attach(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) return {};
    return fd;
}

}  // namespace vosk::host
