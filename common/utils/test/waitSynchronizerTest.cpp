#include <vosk/common/waitSynchronizer.hpp>

#include <future>
#include <vosk/test/support.hpp>

using atomclk::AtomClk;
using namespace std::chrono_literals;

namespace vosk::common {
namespace {

constexpr auto NEVER = AtomClk::time_point::max();

// A wait on a thread of its own. The constructor returns when the thread is at its wait; a wait that never
// ends fails the test and is then stopped.
class Waiter {
public:
    explicit Waiter(const std::function<bool(const int& running)>& wait)
        : m_result{std::async(std::launch::async, [this, wait] {
              m_entered = true;
              return wait(m_running);
          })} {
        while (!m_entered) std::this_thread::yield();
    }
    ~Waiter() { Stop(); }

    bool IsWaiting(std::chrono::milliseconds time = 0ms) {
        return m_result.wait_for(time) == std::future_status::timeout;
    }
    std::optional<bool> Result() {
        return IsWaiting(test::PATIENCE) ? std::nullopt : std::optional{m_result.get()};
    }
    void Stop() { SetRunning(m_running, false); }

private:
    int m_running = 1;
    std::atomic<bool> m_entered{false};
    std::future<bool> m_result;
};

void Set(WaitSynchronizerFlag& flag, bool ready) {
    ready ? flag.SetDataReady() : flag.ClearDataReady();
}

class Waits : public testing::TestWithParam<bool> {
protected:
    static constexpr int RUNNING = 1;
    static constexpr int STOPPED = 0;

    // All four waits; those without a time take NEVER.
    bool Wait(bool for_ready, bool timed, AtomClk::time_point time, const int& running) const {
        WaitSynchronizer& on = *m_synchronizer;
        if (timed) return for_ready ? on.WaitUntil(time, running) : on.WaitForNotReadyUntil(time, running);
        return for_ready ? on.Wait(running) : on.WaitForNotReady(running);
    }
    Waiter Start(bool for_ready, bool timed, AtomClk::time_point time = NEVER) const {
        return Waiter{[=, this](const int& running) { return Wait(for_ready, timed, time, running); }};
    }

    std::shared_ptr<WaitSynchronizer> m_synchronizer = MakeWaitSynchronizer(GetParam());
};
INSTANTIATE_TEST_SUITE_P(Kinds, Waits, testing::Values(true, false),
                         [](const auto& kind) { return kind.param ? "Busy" : "Sleeping"; });

TEST_P(Waits, EndByTheirFlagAStopOrTheirTimeAndByNothingElse) {
    for (const auto& [for_ready, timed] :
         {std::pair{true, false}, {false, false}, {true, true}, {false, true}}) {
        SCOPED_TRACE(testing::Message() << (for_ready ? "ready " : "not ready ") << timed);
        const auto expect_only_a_stop_ends_it = [&, ready = for_ready, until = timed] {
            auto stopped = Start(ready, until);
            m_synchronizer->Notify();
            EXPECT_TRUE(stopped.IsWaiting());
            stopped.Stop();
            EXPECT_EQ(stopped.Result(), false);
        };
        expect_only_a_stop_ends_it();
        WaitSynchronizerFlag flag{m_synchronizer};
        Set(flag, !for_ready);
        expect_only_a_stop_ends_it();
        for (int i = 0; timed && i < 20; ++i) {
            const auto time = AtomClk::now() + 200us;
            EXPECT_TRUE(Wait(for_ready, timed, time, RUNNING));
            EXPECT_GE(AtomClk::now(), time);
        }
        auto ended = Start(for_ready, timed);
        EXPECT_TRUE(ended.IsWaiting());
        Set(flag, for_ready);
        EXPECT_EQ(ended.Result(), true);
        EXPECT_FALSE(Wait(for_ready, timed, AtomClk::time_point::min(), STOPPED));
    }
}

// AtomClk can run slower than the steady clock on which the thread sleeps. Here it stands still for several
// sleeps, until it is set. Nobody notifies. A step back by no more than a second is none.
TEST_P(Waits, GoByAtomClkAndSeeThatItIsSet) {
    const AtomClk::time_point start = NEVER - 1h;
    for (const auto& [until, idle, end] : {std::tuple{start + 100us, start, start + 100us},
                                           {NEVER, start - 1s, NEVER},
                                           {NEVER, start - 1s, start - 1s - 1ns}}) {
        atomclk::ManualClock clock{start};
        auto waiter = Start(true, true, until);
        clock.Set(idle);
        EXPECT_TRUE(waiter.IsWaiting(3ms));
        // To and fro, until the wait has looked at both.
        EXPECT_TRUE(test::Eventually([&, time = end, is_set = false]() mutable {
            is_set = !is_set;
            clock.Set(is_set ? time : start);
            return !waiter.IsWaiting();
        }));
        EXPECT_EQ(waiter.Result(), true);
    }
}

TEST_P(Waits, EitherOfTwoFlagsCountsAndAReplacedSynchronizerLosesIts) {
    WaitSynchronizerFlag first{m_synchronizer};
    const auto former = MakeWaitSynchronizer(GetParam());
    WaitSynchronizerFlag second{former};
    second.SetDataReady();
    EXPECT_TRUE(former->IsAnyFlagReady());
    EXPECT_FALSE(m_synchronizer->IsAnyFlagReady());
    second.ReplaceSynchronizer(m_synchronizer);
    EXPECT_FALSE(former->IsAnyFlagReady());
    for (const auto& [a, b] : {std::pair{false, false}, {false, true}, {true, false}, {true, true}}) {
        Set(first, a);
        Set(second, b);
        EXPECT_EQ(m_synchronizer->IsAnyFlagReady(), a || b);
        EXPECT_EQ(m_synchronizer->IsAnyFlagNotReady(), !a || !b);
    }
    EXPECT_EQ(test::TextOf<std::invalid_argument>([&] { second.ReplaceSynchronizer(nullptr); }),
              "WaitSynchronizerFlagBase: synchronizer cannot be nullptr");
    EXPECT_TRUE(m_synchronizer->IsAnyFlagReady());
    EXPECT_THROW(WaitSynchronizerFlag{nullptr}, std::invalid_argument);
}

// The writer sets the flag at any moment, also between the waiter's test and its sleep, and notifies once.
// Each wait must end; the clearing is waited for in the other direction.
TEST_P(Waits, LoseNoHandOver) {
    constexpr int ROUNDS = 20'000;
    WaitSynchronizerFlag flag{m_synchronizer};
    std::atomic<int> payload{0};
    Waiter reader{[&](const int& running) {
        for (int round = 1; round <= ROUNDS; ++round) {
            if (!m_synchronizer->Wait(running) || payload.load(std::memory_order_relaxed) != round)
                return false;
            flag.ClearDataReady();
        }
        return true;
    }};
    for (int round = 1; round <= ROUNDS && reader.IsWaiting(); ++round) {
        payload.store(round, std::memory_order_relaxed);
        flag.SetDataReady();
        while (flag.IsDataReady() && reader.IsWaiting()) std::this_thread::yield();
    }
    EXPECT_EQ(reader.Result(), true);
}

TEST_P(Waits, GoOnWhileFlagsComeAndGo) {
    WaitSynchronizerFlag last{m_synchronizer};
    auto waiter = Start(true, false);
    for (int i = 0; i < 5'000; ++i) {
        const WaitSynchronizerFlag passing{m_synchronizer};
        m_synchronizer->Notify();
    }
    EXPECT_TRUE(waiter.IsWaiting());
    last.SetDataReady();
    EXPECT_EQ(waiter.Result(), true);
}

}  // namespace
}  // namespace vosk::common
