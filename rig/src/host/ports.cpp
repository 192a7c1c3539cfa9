#include "host/ports.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace vosk::rig {
namespace {

// Below the range from which the system gives ports to sockets that ask for none, so that a free one stays
// free until the host or a peer takes it.
constexpr int FIRST = 20'000;
constexpr int COUNT = 12'000;

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

}  // namespace

Ports Ports::Free() {
    return {static_cast<std::uint16_t>(FIRST + getpid() * 16 % COUNT),
            Search::ForFree};  // each rig elsewhere
}

std::uint16_t Ports::Take() {
    if (m_search == Search::No) return m_next++;
    for (int i = 0; i < COUNT; ++i) {
        const std::uint16_t port = m_next;
        m_next = static_cast<std::uint16_t>(FIRST + (port - FIRST + 1) % COUNT);
        if (IsFree(port)) return port;
    }
    throw std::runtime_error("no free UDP port on the loopback interface");
}

}  // namespace vosk::rig
