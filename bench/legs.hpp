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
