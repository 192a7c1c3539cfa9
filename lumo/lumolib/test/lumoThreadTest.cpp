#include "testSupport.hpp"

#include <lumolib/lumoThread.hpp>
#include <lumolib/timeGrid.hpp>

#include <numa.h>
#include <sched.h>
#include <vosk/test/logCapture.hpp>

using atomclk::AtomClk;
using namespace std::chrono_literals;

namespace vosk::lumo {
namespace {

using log4cplus::WARN_LOG_LEVEL;
using namespace vosk::test;
using testing::ElementsAre;

oru::configng::PliConfigInstanceNode Node(const std::string& value) {
    return test::CfgOf("cfg: " + value);
}

// A thread whose body is the test's; `m_running` and the synchroniser are open to it.
class TestThread : public Thread {
public:
    using Body = std::function<void(TestThread&, std::promise<void>&)>;

    explicit TestThread(Body body, const std::string& config = "{busy: false}")
        : Thread{"Test", Node(config), "a test"}, m_body{std::move(body)} {}
    ~TestThread() override { Stop(); }

    using Thread::m_running;
    using Thread::m_synchronizer;
    using Thread::MemoryResource;

private:
    void Work(std::promise<void>& started) override { m_body(*this, started); }

    const Body m_body;
};

void RunUntilStopped(TestThread& thread, std::promise<void>& started) {
    started.set_value();
    while (thread.WaitUntil(AtomClk::now() + 1ms)) {
    }
}

TEST(Thread, WithACpuItsWorkerRunsThereAloneAndItsEndpointsAllocateFromTheNodesBuffer) {
    if (::numa_available() == -1) GTEST_SKIP() << "no NUMA here";
    const int cpu = ::sched_getcpu();
    cpu_set_t bound;
    CPU_ZERO(&bound);
    TestThread thread{[&](TestThread&, std::promise<void>& started) {
                          ::sched_getaffinity(0, sizeof(bound), &bound);
                          started.set_value();
                      },
                      "{busy: false, numa_buf_size: 8192, cpu: " + std::to_string(cpu) + "}"};
    ASSERT_NE(thread.MemoryResource(), nullptr);
    auto* first = static_cast<std::byte*>(thread.MemoryResource()->allocate(4096));
    auto* second = static_cast<std::byte*>(thread.MemoryResource()->allocate(4096));
    EXPECT_EQ(second - first, 4096);
    thread.Start().get();
    EXPECT_EQ(CPU_COUNT(&bound), 1);
    EXPECT_TRUE(CPU_ISSET(static_cast<unsigned>(cpu), &bound));

    for (const char* config : {"{busy: false, cpu: 0, numa_buf_size: 4611686018427387904}",
                               "{busy: false, cpu: 1000, numa_buf_size: 4096}"}) {
        const LogCapture capture;
        TestThread unplaced{RunUntilStopped, config};  // what the machine refuses is no failure
        EXPECT_EQ(capture.Texts("", WARN_LOG_LEVEL).size(), 1U);
        EXPECT_EQ(unplaced.MemoryResource(), nullptr);
        unplaced.Start().get();
    }
}

TEST(Thread, TakesItsPriorityFromItsKeyOrFromTheDefault) {
    nodepin::default_priority = 7;
    const auto priority = [](const char* keys) {
        return TestThread{RunUntilStopped, keys}.GetPlacement().priority;
    };
    EXPECT_EQ(priority("{busy: false}"), 7);
    EXPECT_EQ(priority("{busy: false, priority: 9}"), 9);
    EXPECT_THROW(priority("{busy: false, priority: 100}"), std::runtime_error);
    nodepin::default_priority = 0;
}

TEST(Thread, FailureBeforeTheHandshakeReachesTheOwner) {
    TestThread failing{[](TestThread&, std::promise<void>&) { throw std::runtime_error{"no topic"}; }};
    EXPECT_THROW(failing.Start().get(), std::runtime_error);
    TestThread leaving{[](TestThread&, std::promise<void>&) {}};
    EXPECT_THROW(leaving.Start().get(), std::future_error);
}

TEST(Thread, FailureAfterTheHandshakeEndsTheThreadByItself) {
    bool fails = true;
    TestThread thread{[&fails](TestThread& self, std::promise<void>& started) {
        if (!fails) return RunUntilStopped(self, started);
        started.set_value();
        throw std::runtime_error{"wire cut"};
    }};
    thread.Start().get();
    EXPECT_TRUE(Eventually([&] { return thread.HasEndedByItself(); }));
    thread.Stop();
    EXPECT_TRUE(thread.HasEndedByItself());

    fails = false;
    thread.Start().get();
    thread.Stop();
    EXPECT_FALSE(thread.HasEndedByItself());
}

TEST(Thread, StopEndsAWorkerInAnyOfItsWaitsAndItRunsAgainButNotTwiceAtOnce) {
    const auto wait = [](TestThread& thread, std::promise<void>& started) {
        started.set_value();
        thread.m_synchronizer->Wait(thread.m_running);
    };
    const auto sleep = [](TestThread& thread, std::promise<void>& started) {
        EXPECT_TRUE(thread.WaitUntil(AtomClk::now() - 1s));
        RunUntilStopped(thread, started);
    };
    for (const char* config : {"{busy: false}", "{busy: true}"}) {
        for (const TestThread::Body& body : {TestThread::Body{wait}, TestThread::Body{sleep}}) {
            TestThread thread{body, config};
            thread.Stop();  // harmless
            for (int i = 0; i < 2; ++i) {
                thread.Start().get();
                EXPECT_THROW(thread.Start(), std::runtime_error);
                thread.Stop();
            }
        }
    }
}

// A receiver and a sender on one node.
struct Times : RxThread, TxThread {
    explicit Times(const std::string& keys)
        : RxThread{"Rx", Node("{busy: false" + keys + "}"), "", 7us},
          TxThread{"Tx", Node("{busy: false" + keys + "}"), "", 8us, 9us} {}
    void Work(std::promise<void>&) override {}
    std::vector<std::chrono::microseconds> Get() const { return {m_timeout, m_send_interval, m_send_offset}; }
};

TEST(RxTxThread, ReadTheirTimesOverTheDefaults) {
    EXPECT_THAT(Times{""}.Get(), ElementsAre(7us, 8us, 9us));
    EXPECT_THAT(Times{", timeout: 2 ms, send_interval: 3 ms, send_offset: 1500 ns"}.Get(),
                ElementsAre(2ms, 3ms, 2us));
    EXPECT_THAT(Times{", send_offset: -2 us"}.Get(), ElementsAre(7us, 8us, -2us));
    for (const char* key : {", timeout: -1 us", ", send_interval: -1 us", ", send_offset: -3600001 ms"})
        EXPECT_THROW(Times{key}, std::runtime_error) << key;
}

TEST(CeilToNextInterval, FindsTheFirstGridPointAtOrAfterTheTime) {
    EXPECT_EQ(CeilToNextInterval(At(1'000'001), 0us, 250us), At(1'250'001));
    EXPECT_EQ(CeilToNextInterval(At(1'000'000), 1000us, 0us), At(1'000'000));
    EXPECT_EQ(CeilToNextInterval(At(1'000'001), 1000us, 0us), At(2'000'000));
    EXPECT_EQ(CeilToNextInterval(At(1'800'000'000'000'000'001), 7us, 0us).time_since_epoch() % 7us, 0ns);
}

TEST(TimeGrid, IsNotShiftedByLateCyclesButSkipsWhatLiesFarBack) {
    TimeGrid grid{2ms, 100us, At(3ms)};
    EXPECT_EQ(grid.Point(), At(4100us));
    EXPECT_EQ(grid.Advance(At(206'100us)), 0U);  // 100 intervals behind
    EXPECT_EQ(grid.Point(), At(6100us));
    EXPECT_EQ(grid.Advance(At(208'100us) + 1ns), 101U);
    EXPECT_EQ(grid.Point(), At(210'100us));
    EXPECT_EQ(grid.Advance(At(10s)), 4894U);  // a clock that is set forward
    EXPECT_EQ(grid.Advance(At(9500ms)), 0U);
    EXPECT_EQ(grid.Point(), At(10'002'100us));
    EXPECT_EQ(grid.Advance(At(8s)), 0U);  // set back
    EXPECT_EQ(grid.Point(), At(8'000'100us));
}

}  // namespace
}  // namespace vosk::lumo
