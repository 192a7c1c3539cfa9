#pragma once

// One leg of a loop: what a thread takes to pass something on, measured from a thread that hands it over and
// waits for it, beside the same on bare futexes or atomics.

#include "bareChain.hpp"

#include <lumolib/dataSyncManager.hpp>
#include <vosk/common/shmif/shmRt.hpp>

namespace vosk::bench {

template <class Sync, class... Args>
Sync& Object(Args... args) {
    return *lumo::DataSyncManager::GetInstance().GetOrRegisterDataSync<Sync>(typename Sync::InstanceTag{},
                                                                             args...);
}

inline std::string HowItWaits(bool busy) {
    return busy ? "spinning" : "asleep";
}

// A wake that falls between the look and the sleep of a read costs its limit.
inline constexpr std::chrono::milliseconds READ_LIMIT{10};

template <class Record>
void Receive(common::shmif::ShmReaderRT& reader, bool busy, Record& record) {
    while (!reader.TimedReceive(&record, busy ? std::chrono::milliseconds{0} : READ_LIMIT)) continue;
}

// A flowgraph on a thread, which answers each record of the host at once.
template <class In, class Out>
class AnsweringFlowgraph {
public:
    using Answer = void (*)(const In&, Out&);

    // The mailboxes are `name`_in and `name`_out.
    AnsweringFlowgraph(const std::string& name, int cpu, bool busy, Answer answer)
        : m_in{m_shm, name + "_in"},
          m_out{m_shm, name + "_out"},
          m_thread{nodepin::MakeThread("flowgraph", OnCpu(cpu), [=, this] { Run(busy, answer); })} {}
    ~AnsweringFlowgraph() {
        m_stops = true;
        m_thread.join();
    }
    AnsweringFlowgraph(const AnsweringFlowgraph&) = delete;
    AnsweringFlowgraph& operator=(const AnsweringFlowgraph&) = delete;

    steady_clock::time_point Time() const { return m_time; }  // of the last record, any thread

private:
    void Run(bool busy, Answer answer) {
        In in;
        Out out;
        while (!m_stops) {
            if (!m_in.TimedReceive(&in, busy ? std::chrono::milliseconds{0} : READ_LIMIT)) continue;
            m_time = steady_clock::now();
            out.timestamp = out.input_timestamp = in.timestamp;
            out.sample_id = out.input_sample_id = in.sample_id;
            answer(in, out);
            m_out.TimedSend(&out, std::chrono::microseconds{500});
        }
    }

    std::atomic<bool> m_stops{false};
    std::atomic<steady_clock::time_point> m_time{};
    common::shmif::ShmIf m_shm;
    common::shmif::ShmReaderRT m_in;
    common::shmif::ShmWriterRT m_out;
    std::thread m_thread;
};

// From a hand-over to the moment at which a waiter of `sync` is awake.
template <class Sync, class HandOver>
double UsToWaiter(Sync& sync, const HandOver& hand_over) {
    constexpr int RUNNING = 1;
    sync.ClearDataReady();
    const auto start = steady_clock::now();
    hand_over();
    sync.GetSynchronizer()->WaitUntil(AtomClk::now() + PATIENCE, RUNNING);
    const double us = UsSince(start);
    if (!sync.IsDataReady()) throw std::runtime_error("a thread passes nothing on");
    return us;
}

// To wake a thread that does some work and wakes the first one.
inline Figures MeasureBareEcho(const std::vector<int>& cpus, bool busy, const std::function<void()>& work) {
    Figures bare{};
    WithBareChain(busy, {{cpus[0], work}}, [&](auto& chain) {
        RunOn(cpus[1], [&] {
            bare = Measure([&] {
                std::this_thread::sleep_for(PAUSE);
                return TimeUs([&] {
                    chain.Start();
                    chain.Await();
                });
            });
        });
    });
    return bare;
}

}  // namespace vosk::bench
