#include <vosk/common/waitSynchronizer.hpp>

#include <future>
#include <vosk/test/support.hpp>

using atomclk::AtomClk;
using namespace std::chrono_literals;

namespace vosk::common {
namespace {

const AtomClk::time_point LONG_PAST{AtomClk::duration{1}};

// The waits of one synchroniser, run on a thread of their own; a wait that never ends fails the test and is
// then stopped.
class Waiter {
public:
    explicit Waiter(std::shared_ptr<WaitSynchronizer> synchronizer)
        : m_synchronizer{std::move(synchronizer)} {}
    ~Waiter() { Stop(); }

    // Returns when the thread is at its wait.
    template <class Operation>
    std::future<bool> Start(Operation wait) {
        m_entered = false;
        auto result = std::async(std::launch::async, [this, wait] {
            m_entered = true;
            return wait(*m_synchronizer, m_running);
        });
        while (!m_entered) std::this_thread::yield();
        return result;
    }

    void Stop() { SetRunning(m_running, false); }

private:
    std::shared_ptr<WaitSynchronizer> m_synchronizer;
    int m_running = 1;
    std::atomic<bool> m_entered{false};
};

std::optional<bool> Result(std::future<bool>& wait) {
    if (wait.wait_for(test::PATIENCE) != std::future_status::ready) return std::nullopt;
    return wait.get();
}

bool IsWaiting(std::future<bool>& wait) {
    return wait.wait_for(0s) == std::future_status::timeout;
}

class WaitSynchronizerTest : public testing::TestWithParam<bool> {
protected:
    std::shared_ptr<WaitSynchronizer> m_synchronizer = MakeWaitSynchronizer(GetParam());
    int m_running = 1;
    int m_stopped = 0;
};

TEST_P(WaitSynchronizerTest, StoppedThreadIsToldSoEvenWithAReadyFlag) {
    WaitSynchronizerFlag flag{m_synchronizer};
    flag.SetDataReady();
    EXPECT_FALSE(m_synchronizer->Wait(m_stopped));
    EXPECT_FALSE(m_synchronizer->WaitUntil(AtomClk::now() + 1h, m_stopped));
    EXPECT_FALSE(m_synchronizer->WaitForNotReady(m_stopped));
    EXPECT_FALSE(m_synchronizer->WaitForNotReadyUntil(LONG_PAST, m_stopped));
}

TEST_P(WaitSynchronizerTest, ReadyFlagEndsAWaitWithoutALookAtTheTime) {
    WaitSynchronizerFlag ready{m_synchronizer};
    ready.SetDataReady();
    EXPECT_TRUE(m_synchronizer->Wait(m_running));
    EXPECT_TRUE(m_synchronizer->WaitUntil(AtomClk::time_point::max(), m_running));
    WaitSynchronizerFlag not_ready{m_synchronizer};
    EXPECT_TRUE(m_synchronizer->WaitForNotReady(m_running));
    EXPECT_TRUE(m_synchronizer->WaitForNotReadyUntil(AtomClk::time_point::max(), m_running));
}

TEST_P(WaitSynchronizerTest, TimeEndsAWaitAndNeverTooEarly) {
    WaitSynchronizerFlag flag{m_synchronizer};
    EXPECT_TRUE(m_synchronizer->WaitUntil(LONG_PAST, m_running));
    EXPECT_TRUE(m_synchronizer->WaitUntil(AtomClk::time_point::min(), m_running));
    for (int i = 0; i < 20; ++i) {
        const auto time = AtomClk::now() + 200us;
        EXPECT_TRUE(m_synchronizer->WaitUntil(time, m_running));
        EXPECT_GE(AtomClk::now(), time);
    }
    flag.SetDataReady();
    EXPECT_TRUE(m_synchronizer->WaitForNotReadyUntil(LONG_PAST, m_running));
    const auto time = AtomClk::now() + 200us;
    EXPECT_TRUE(m_synchronizer->WaitForNotReadyUntil(time, m_running));
    EXPECT_GE(AtomClk::now(), time);
}

TEST_P(WaitSynchronizerTest, EitherOfTwoFlagsEndsAWaitUntilBothAreCleared) {
    WaitSynchronizerFlag first{m_synchronizer};
    WaitSynchronizerFlag second{m_synchronizer};
    EXPECT_FALSE(m_synchronizer->IsAnyFlagReady());
    EXPECT_TRUE(m_synchronizer->IsAnyFlagNotReady());
    second.SetDataReady();
    EXPECT_TRUE(m_synchronizer->Wait(m_running));
    first.SetDataReady();
    EXPECT_FALSE(m_synchronizer->IsAnyFlagNotReady());
    second.ClearDataReady();
    EXPECT_TRUE(m_synchronizer->Wait(m_running));
    first.ClearDataReady();
    EXPECT_FALSE(m_synchronizer->IsAnyFlagReady());
}

TEST_P(WaitSynchronizerTest, WithoutFlagsOnlyAStopEndsAWait) {
    EXPECT_FALSE(m_synchronizer->IsAnyFlagReady());
    EXPECT_FALSE(m_synchronizer->IsAnyFlagNotReady());
    for (const auto wait : {&WaitSynchronizer::Wait, &WaitSynchronizer::WaitForNotReady}) {
        Waiter waiter{m_synchronizer};
        auto result = waiter.Start(
            [wait](auto& synchronizer, const int& running) { return (synchronizer.*wait)(running); });
        m_synchronizer->Notify();
        EXPECT_TRUE(IsWaiting(result));
        waiter.Stop();
        EXPECT_EQ(Result(result), false);
    }
}

TEST_P(WaitSynchronizerTest, StopEndsAWaitForATime) {
    for (const auto wait : {&WaitSynchronizer::WaitUntil, &WaitSynchronizer::WaitForNotReadyUntil}) {
        Waiter waiter{m_synchronizer};
        auto result = waiter.Start([wait](auto& synchronizer, const int& running) {
            return (synchronizer.*wait)(AtomClk::now() + 1h, running);
        });
        waiter.Stop();
        EXPECT_EQ(Result(result), false);
    }
}

// The writer sets the flag at any moment, also between the waiter's test and its sleep, and notifies once.
// Each wait must end; the clearing is waited for in the other direction.
TEST_P(WaitSynchronizerTest, NoHandOverIsLost) {
    constexpr int ROUNDS = 20'000;
    WaitSynchronizerFlag flag{m_synchronizer};
    std::atomic<int> payload{0};
    Waiter waiter{m_synchronizer};
    auto reader = waiter.Start([&](auto& synchronizer, const int& running) {
        for (int round = 1; round <= ROUNDS; ++round) {
            if (!synchronizer.Wait(running) || payload.load(std::memory_order_relaxed) != round) return false;
            flag.ClearDataReady();
        }
        return true;
    });
    for (int round = 1; round <= ROUNDS && IsWaiting(reader); ++round) {
        payload.store(round, std::memory_order_relaxed);
        flag.SetDataReady();
        while (flag.IsDataReady() && IsWaiting(reader)) std::this_thread::yield();
    }
    EXPECT_EQ(Result(reader), true);
}

TEST_P(WaitSynchronizerTest, ClearingEndsAWaitForNotReady) {
    WaitSynchronizerFlag flag{m_synchronizer};
    flag.SetDataReady();
    Waiter waiter{m_synchronizer};
    auto wait = waiter.Start(
        [](auto& synchronizer, const int& running) { return synchronizer.WaitForNotReady(running); });
    EXPECT_TRUE(IsWaiting(wait));
    flag.ClearDataReady();
    EXPECT_EQ(Result(wait), true);
}

TEST_P(WaitSynchronizerTest, FlagsComeAndGoWhileAnotherThreadWaits) {
    WaitSynchronizerFlag last{m_synchronizer};
    Waiter waiter{m_synchronizer};
    auto wait =
        waiter.Start([](auto& synchronizer, const int& running) { return synchronizer.Wait(running); });
    for (int i = 0; i < 5'000; ++i) {
        WaitSynchronizerFlag passing{m_synchronizer};
        m_synchronizer->Notify();
    }
    EXPECT_TRUE(IsWaiting(wait));
    last.SetDataReady();
    EXPECT_EQ(Result(wait), true);
}

TEST_P(WaitSynchronizerTest, ReplacedSynchronizerTakesTheFlagOver) {
    WaitSynchronizerFlag flag{GetParam()};
    const auto former = flag.GetSynchronizer();
    flag.SetDataReady();
    flag.ReplaceSynchronizer(m_synchronizer);
    EXPECT_FALSE(former->IsAnyFlagReady());
    EXPECT_TRUE(m_synchronizer->IsAnyFlagReady());
    EXPECT_THROW(flag.ReplaceSynchronizer(nullptr), std::invalid_argument);
    EXPECT_TRUE(m_synchronizer->IsAnyFlagReady());
}

INSTANTIATE_TEST_SUITE_P(Kinds, WaitSynchronizerTest, testing::Values(true, false),
                         [](const auto& kind) { return kind.param ? "Busy" : "Sleeping"; });

// AtomClk can run slower than the steady clock on which the thread sleeps, or be set back. Here it stands
// still, so that each sleep ends too early by it, until it is moved on.
TEST(WaitUntil, GoesByAtomClkWhereTheSteadyClockDiffers) {
    for (const bool busy : {true, false}) {
        const AtomClk::time_point start{AtomClk::duration{1'000'000}};
        atomclk::ManualClock clock{start};
        Waiter waiter{MakeWaitSynchronizer(busy)};
        auto wait = waiter.Start([start](auto& synchronizer, const int& running) {
            return synchronizer.WaitUntil(start + 100us, running);
        });
        // Several sleeps of 100 us: were the wait to end with the first, it would be over now.
        EXPECT_EQ(wait.wait_for(3ms), std::future_status::timeout);
        clock.Set(start + 100us);
        EXPECT_EQ(Result(wait), true);
    }
}

// Nobody notifies. A step back by no more than a second is none.
TEST(WaitUntil, SeesAClockThatIsSet) {
    const AtomClk::time_point start = AtomClk::time_point::max() - 1h;
    for (const bool busy : {true, false}) {
        for (const auto time : {AtomClk::time_point::max(), start - 1s - 1ns}) {
            atomclk::ManualClock clock{start};
            Waiter waiter{MakeWaitSynchronizer(busy)};
            auto wait = waiter.Start([](auto& synchronizer, const int& running) {
                return synchronizer.WaitUntil(AtomClk::time_point::max(), running);
            });
            clock.Set(start - 1s);
            EXPECT_EQ(wait.wait_for(3ms), std::future_status::timeout);
            // To and fro, until the wait has looked at both.
            EXPECT_TRUE(test::Eventually([&, is_set = false]() mutable {
                is_set = !is_set;
                clock.Set(is_set ? time : start);
                return !IsWaiting(wait);
            }));
            EXPECT_EQ(Result(wait), true);
        }
    }
}

TEST(WaitSynchronizerFlagBase, RefusesToBeWithoutASynchronizer) {
    EXPECT_EQ(test::TextOf<std::invalid_argument>(
                  [] { WaitSynchronizerFlag{std::shared_ptr<WaitSynchronizer>{}}; }),
              "WaitSynchronizerFlagBase: synchronizer cannot be nullptr");
}

}  // namespace
}  // namespace vosk::common
