// How late a thread is back from waiting for a time: WaitUntil of the synchronisers, against a bare loop on
// the clock and a bare absolute sleep of the kernel, all on a thread made as the workers are.

#include <atomclk/atomClk.hpp>
#include <nodepin/nodepin.hpp>
#include <vosk/common/waitSynchronizer.hpp>

#include <ctime>

#include "bench.hpp"

namespace vosk::bench {
namespace {

using atomclk::AtomClk;

constexpr int SAMPLES = 2'000;
constexpr std::chrono::microseconds AHEAD{250};  // long enough to fall asleep

void SpinUntil(AtomClk::time_point time) {
    while (AtomClk::now() < time) {
    }
}

void SleepUntil(AtomClk::time_point time) {
    const auto ns = time.time_since_epoch().count();
    const timespec wake_up{ns / 1'000'000'000, ns % 1'000'000'000};
    while (::clock_nanosleep(CLOCK_TAI, TIMER_ABSTIME, &wake_up, nullptr) != 0) {
    }
}

template <class Wait>
double OvershootUs(Wait wait) {
    const auto time = AtomClk::now() + AHEAD;
    wait(time);
    return std::chrono::duration<double, std::micro>(AtomClk::now() - time).count();
}

// Ours and the reference in turn, so that a noisy moment meets both.
template <class Reference>
void Compare(bool busy, const std::string& what, const std::string& against, Reference reference,
             std::vector<Row>& rows) {
    const auto synchronizer = common::MakeWaitSynchronizer(busy);
    const int running = 1;
    std::vector<double> ours;
    std::vector<double> theirs;
    nodepin::MakeThread("waiter", {}, [&] {
        for (int i = 0; i < SAMPLES; ++i) {
            ours.push_back(
                OvershootUs([&](AtomClk::time_point time) { synchronizer->WaitUntil(time, running); }));
            theirs.push_back(OvershootUs(reference));
        }
    }).join();
    rows.push_back({what + ", p50", against, "us", Percentile(ours, 0.5), Percentile(theirs, 0.5)});
    rows.push_back({what + ", p99", against, "us", Percentile(ours, 0.99), Percentile(theirs, 0.99)});
}

}  // namespace

std::vector<Row> BenchWaitUntil() {
    std::vector<Row> rows;
    Compare(true, "WaitUntil overshoot, spinning", "bare loop on the clock", SpinUntil, rows);
    Compare(false, "WaitUntil overshoot, sleeping", "clock_nanosleep", SleepUntil, rows);
    return rows;
}

}  // namespace vosk::bench
