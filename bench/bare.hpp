#pragma once

// The barest means of handing over between threads, and CPUs for these.

#include <nodepin/nodepin.hpp>

#include <arpa/inet.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <vector>

namespace vosk::bench {

class SpinLink {
public:
    void Signal() { m_ready.store(1, std::memory_order_release); }
    void Await() {
        while (m_ready.load(std::memory_order_acquire) == 0) {
        }
        m_ready.store(0, std::memory_order_relaxed);
    }

private:
    alignas(64) std::atomic<int> m_ready{0};
};

class FutexLink {
public:
    void Signal() {
        m_ready.store(1, std::memory_order_release);
        ::syscall(SYS_futex, &m_ready, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
    void Await() {
        while (m_ready.load(std::memory_order_acquire) == 0) {
            ::syscall(SYS_futex, &m_ready, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
        }
        m_ready.store(0, std::memory_order_relaxed);
    }

private:
    alignas(64) std::atomic<int> m_ready{0};
};

// The CPUs that this process may use, at most so many.
inline std::vector<int> SomeCpus(std::size_t most) {
    cpu_set_t allowed;
    ::sched_getaffinity(0, sizeof(allowed), &allowed);
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE && cpus.size() < most; ++cpu) {
        if (CPU_ISSET(static_cast<unsigned>(cpu), &allowed)) cpus.push_back(cpu);
    }
    return cpus;
}

inline nodepin::NumaPolicies OnCpu(int cpu) {
    nodepin::NumaPolicies policies;
    policies.priority = nodepin::default_priority;
    policies.cpu_affinity = nodepin::CpuAffinity::MakeBindCpu(cpu);
    return policies;
}

// A bound UDP socket on the loopback interface with blocking calls.
class BareSocket {
public:
    BareSocket() : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof m_address;
        auto* address = reinterpret_cast<sockaddr*>(&m_address);
        if (m_fd < 0 || bind(m_fd, address, length) != 0 || getsockname(m_fd, address, &length) != 0)
            throw std::runtime_error("no socket on the loopback interface");
        // A lost packet ends the run, it doesn't hang it.
        const timeval patience{.tv_sec = 10, .tv_usec = 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    ~BareSocket() { close(m_fd); }
    BareSocket(const BareSocket&) = delete;
    BareSocket& operator=(const BareSocket&) = delete;

    std::uint16_t Port() const { return ntohs(m_address.sin_port); }

    void SendTo(const BareSocket& peer, std::span<const std::byte> packet) const {
        if (sendto(m_fd, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&peer.m_address),
                   sizeof peer.m_address) < 0)
            throw std::runtime_error("a packet can't be sent");
    }
    // An empty packet is the sign to stop. With MSG_DONTWAIT it spins.
    bool Receive(std::span<std::byte> packet, int flags = 0) const {
        ssize_t size = 0;
        do {
            size = recv(m_fd, packet.data(), packet.size(), flags);
        } while (size < 0 && flags == MSG_DONTWAIT && errno == EAGAIN);
        if (size < 0) throw std::runtime_error("a packet was lost on the loopback interface");
        return size > 0;
    }

protected:
    int m_fd;

private:
    sockaddr_in m_address{};
};

}  // namespace vosk::bench
