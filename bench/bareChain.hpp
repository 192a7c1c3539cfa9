#pragma once

// The least that a road through several threads costs: the same wake-ups, the work that cannot be left out,
// and nothing else. Beside it what tells the moments of both roads.

#include "bare.hpp"
#include "workerThreads.hpp"

#include <atomclk/atomClk.hpp>

#include <poll.h>

#include <array>
#include <cstring>
#include <ctime>
#include <functional>
#include <optional>

namespace vosk::bench {

using atomclk::AtomClk;

// Threads in a row: each waits for the one before, does its work, notes the moment and tells the next.
template <class Link>
class BareChain {
public:
    struct Stage {
        int cpu;
        std::function<void()> work;
    };

    explicit BareChain(std::vector<Stage> stages)
        : m_stages{std::move(stages)}, m_links(m_stages.size() + 1), m_ends(m_stages.size()) {
        for (std::size_t i = 0; i < m_stages.size(); ++i)
            m_threads.push_back(nodepin::MakeThread("bare", OnCpu(m_stages[i].cpu), [this, i] { Run(i); }));
    }
    ~BareChain() {
        m_stops = true;
        Start();
        for (std::thread& thread : m_threads) thread.join();
    }
    BareChain(const BareChain&) = delete;
    BareChain& operator=(const BareChain&) = delete;

    void Start() { m_links.front().Signal(); }
    void Await() { m_links.back().Await(); }
    // After Await().
    steady_clock::time_point EndOf(std::size_t stage) const { return m_ends[stage]; }

private:
    void Run(std::size_t stage) {
        for (;;) {
            m_links[stage].Await();
            const bool stops = m_stops;
            if (!stops) m_stages[stage].work();
            m_ends[stage] = steady_clock::now();
            m_links[stage + 1].Signal();
            if (stops) return;
        }
    }

    const std::vector<Stage> m_stages;
    std::vector<Link> m_links;
    std::vector<steady_clock::time_point> m_ends;
    std::atomic<bool> m_stops{false};
    std::vector<std::thread> m_threads;
};

// Calls `use` with a chain whose threads spin or sleep.
template <class Use>
void WithBareChain(bool busy, const std::vector<BareChain<SpinLink>::Stage>& stages, const Use& use) {
    if (busy) {
        BareChain<SpinLink> chain{stages};
        return use(chain);
    }
    std::vector<BareChain<FutexLink>::Stage> asleep;
    asleep.reserve(stages.size());
    for (const auto& stage : stages) asleep.push_back({stage.cpu, stage.work});
    BareChain<FutexLink> chain{std::move(asleep)};
    use(chain);
}

// Until a time, on the clock or in the kernel.
inline void BareWaitUntil(AtomClk::time_point time, bool busy) {
    if (busy) {
        while (AtomClk::now() < time) {
        }
        return;
    }
    const auto ns = time.time_since_epoch().count();
    const timespec wake_up{ns / 1'000'000'000, ns % 1'000'000'000};
    while (::clock_nanosleep(CLOCK_TAI, TIMER_ABSTIME, &wake_up, nullptr) != 0) {
    }
}

// Tells when a packet left, by the kernel's own stamp: the wake-up of the reader is no part of it.
class StampedSocket : public BareSocket {
public:
    StampedSocket() {
        const int on = 1;
        if (setsockopt(m_fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0)
            throw std::runtime_error("the kernel stamps no packets");
    }

    // Of the next packet; none if it doesn't come.
    std::optional<AtomClk::time_point> TryReceiveTime(std::chrono::milliseconds patience) {
        pollfd waiting{m_fd, POLLIN, 0};
        if (::poll(&waiting, 1, static_cast<int>(patience.count())) == 0) return {};
        return ReceiveTime();
    }
    AtomClk::time_point ReceiveTime() {
        iovec piece{m_packet.data(), m_packet.size()};
        alignas(cmsghdr) std::array<std::byte, 64> control{};
        msghdr message{};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        if (::recvmsg(m_fd, &message, 0) < 0)
            throw std::runtime_error("no packet came on the loopback interface");
        const cmsghdr* header = CMSG_FIRSTHDR(&message);
        if (header == nullptr || header->cmsg_type != SCM_TIMESTAMPNS)
            throw std::runtime_error("a packet without the kernel's stamp");
        timespec stamp{};
        std::memcpy(&stamp, CMSG_DATA(header), sizeof stamp);
        const std::chrono::nanoseconds time =
            std::chrono::seconds{stamp.tv_sec} + std::chrono::nanoseconds{stamp.tv_nsec};
        return AtomClk::time_point{time} + m_ahead;
    }

private:
    // Leap seconds: whole ones.
    static std::chrono::seconds AheadOfSystemClock() {
        const auto system = std::chrono::system_clock::now().time_since_epoch();
        return std::chrono::round<std::chrono::seconds>(AtomClk::now().time_since_epoch() - system);
    }

    std::vector<std::byte> m_packet = std::vector<std::byte>(65536);
    const std::chrono::seconds m_ahead = AheadOfSystemClock();
};

}  // namespace vosk::bench
