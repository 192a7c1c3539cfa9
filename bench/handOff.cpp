// Handing over from one thread to another: through a waitable flag as the exchange objects do it, and through
// the thread pool, against the barest means there are. For the flag two threads on CPUs of their own play
// ping-pong; a hand-over is half a round trip. For the pool a run wakes all workers and joins them.

#include "bare.hpp"
#include "bench.hpp"

#include <vosk/common/numaThreadPool.hpp>
#include <vosk/common/waitSynchronizer.hpp>

#include <thread>

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

// The first CPU is the owner's.
int CpuOfWorker(const std::vector<int>& cpus, std::size_t worker) {
    return cpus[1 + worker % (cpus.size() - 1)];
}

// Appends microseconds a run, on a thread of its own.
template <class Run>
void TimeRuns(int cpu, int rounds, std::vector<double>& samples, Run run) {
    nodepin::MakeThread("owner", OnCpu(cpu), [&] {
        for (int i = 0; i < rounds; ++i) samples.push_back(TimeUs(run));
    }).join();
}

template <class Link>
void RunBare(const std::vector<int>& cpus, std::size_t workers, int rounds, std::vector<double>& samples) {
    std::vector<Link> wake(workers);
    std::vector<Link> done(workers);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < workers; ++i) {
        threads.push_back(nodepin::MakeThread("bare", OnCpu(CpuOfWorker(cpus, i)), [&, i] {
            for (int round = 0; round < rounds; ++round) {
                wake[i].Await();
                done[i].Signal();
            }
        }));
    }
    TimeRuns(cpus[0], rounds, samples, [&] {
        for (Link& link : wake) link.Signal();
        for (Link& link : done) link.Await();
    });
    for (std::thread& thread : threads) thread.join();
}

void RunPool(const std::vector<int>& cpus, std::size_t workers, bool busy, int rounds,
             std::vector<double>& samples) {
    common::NumaThreadPool pool{workers};
    for (std::size_t i = 0; i < workers; ++i)
        pool.ProvisionWorker("pool", 0, CpuOfWorker(cpus, i), busy, false);
    TimeRuns(cpus[0], rounds, samples, [&pool] {
        pool.Run();
        pool.Wait();
    });
}

template <class Reference>
void ComparePool(const std::vector<int>& cpus, std::size_t workers, bool busy, const std::string& against,
                 std::vector<Row>& rows) {
    std::vector<double> ours;
    std::vector<double> reference;
    const int rounds = busy ? SPINNING_ROUNDS : SLEEPING_ROUNDS;
    for (int i = 0; i < REPEATS; ++i) {
        RunPool(cpus, workers, busy, rounds, ours);
        RunBare<Reference>(cpus, workers, rounds, reference);
    }
    const std::string what = "pool run, " + std::to_string(workers) + (busy ? " spinning" : " sleeping");
    rows.push_back({what + ", p50", against, "us", Percentile(ours, 0.5), Percentile(reference, 0.5)});
    rows.push_back({what + ", p99", against, "us", Percentile(ours, 0.99), Percentile(reference, 0.99)});
}

}  // namespace

std::vector<Row> BenchHandOff() {
    const std::vector<int> cpus = SomeCpus(3);
    if (cpus.size() < 2) return {};
    std::vector<Row> rows;
    Compare<FlagLink<true>, SpinLink>(cpus, SPINNING_ROUNDS, "hand-over, spinning", "bare atomic spin", rows);
    Compare<FlagLink<false>, FutexLink>(cpus, SLEEPING_ROUNDS, "hand-over, sleeping", "bare futex", rows);
    for (const std::size_t workers : {1U, 2U}) {
        // One that spins needs its CPU for itself.
        if (workers < cpus.size()) ComparePool<SpinLink>(cpus, workers, true, "bare atomic spin", rows);
        ComparePool<FutexLink>(cpus, workers, false, "bare futex", rows);
    }
    return rows;
}

}  // namespace vosk::bench
