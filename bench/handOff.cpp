// Handing over from one thread to another: through a waitable flag as the exchange objects do it, against the
// barest means there are. Two threads on CPUs of their own play ping-pong; a hand-over is half a round trip.

#include <nodepin/nodepin.hpp>

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vosk/common/waitSynchronizer.hpp>

#include <atomic>
#include <thread>

#include "bench.hpp"

namespace vosk::bench {
namespace {

constexpr int REPEATS = 5;  // ours and the reference in turn, so that a noisy moment meets both
constexpr int SPINNING_ROUNDS = 40'000;
constexpr int SLEEPING_ROUNDS = 2'000;

// One direction of the ping-pong: a flag on a synchroniser of its own.
template <bool Busy>
class FlagLink {
public:
    void Signal() { m_flag.SetDataReady(); }
    void Await() {
        m_flag.GetSynchronizer()->Wait(m_running);
        m_flag.ClearDataReady();
    }

private:
    const int m_running = 1;
    common::WaitSynchronizerFlag m_flag{Busy};
};

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

// The CPUs that this process may use, at most two.
std::vector<int> TwoCpus() {
    cpu_set_t allowed;
    ::sched_getaffinity(0, sizeof(allowed), &allowed);
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE && cpus.size() < 2; ++cpu) {
        if (CPU_ISSET(static_cast<unsigned>(cpu), &allowed)) cpus.push_back(cpu);
    }
    return cpus;
}

nodepin::NumaPolicies OnCpu(int cpu) {
    nodepin::NumaPolicies policies;
    policies.cpu_affinity = nodepin::CpuAffinity::MakeBindCpu(cpu);
    return policies;
}

// Appends microseconds a hand-over.
template <class Link>
void PlayPingPong(const std::vector<int>& cpus, int rounds, std::vector<double>& samples) {
    Link ping;
    Link pong;
    std::thread partner = nodepin::MakeThread("partner", OnCpu(cpus[1]), [&] {
        for (int i = 0; i < rounds; ++i) {
            ping.Await();
            pong.Signal();
        }
    });
    nodepin::MakeThread("player", OnCpu(cpus[0]), [&] {
        for (int i = 0; i < rounds; ++i) {
            samples.push_back(TimeUs([&] {
                                  ping.Signal();
                                  pong.Await();
                              }) /
                              2);
        }
    }).join();
    partner.join();
}

template <class Ours, class Reference>
void Compare(const std::vector<int>& cpus, int rounds, const std::string& what, const std::string& against,
             std::vector<Row>& rows) {
    std::vector<double> ours;
    std::vector<double> reference;
    for (int i = 0; i < REPEATS; ++i) {
        PlayPingPong<Ours>(cpus, rounds, ours);
        PlayPingPong<Reference>(cpus, rounds, reference);
    }
    rows.push_back({what + ", p50", against, "us", Percentile(ours, 0.5), Percentile(reference, 0.5)});
    rows.push_back({what + ", p99", against, "us", Percentile(ours, 0.99), Percentile(reference, 0.99)});
}

}  // namespace

std::vector<Row> BenchHandOff() {
    const std::vector<int> cpus = TwoCpus();
    if (cpus.size() < 2) return {};
    std::vector<Row> rows;
    Compare<FlagLink<true>, SpinLink>(cpus, SPINNING_ROUNDS, "hand-over, spinning", "bare atomic spin", rows);
    Compare<FlagLink<false>, FutexLink>(cpus, SLEEPING_ROUNDS, "hand-over, sleeping", "bare futex", rows);
    return rows;
}

}  // namespace vosk::bench
