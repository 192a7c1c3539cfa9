#include <vosk/common/numaThreadPool.hpp>

#include <pthread.h>
#include <sched.h>
#include <oru/configng/pliConfigReview.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

using namespace testing;
using oru::configng::PliConfigFinding;

namespace vosk::common {
namespace {

class NumaThreadPoolTest : public TestWithParam<bool> {
protected:
    static std::unique_ptr<NumaThreadPool> PoolOf(std::size_t workers) {
        auto pool = std::make_unique<NumaThreadPool>(workers);
        for (std::size_t i = 0; i < workers; ++i) pool->ProvisionWorker("worker", 0, -1, GetParam(), false);
        return pool;
    }
};

TEST_P(NumaThreadPoolTest, WithoutWorkersRunsBothTasksInTheCaller) {
    const auto pool = PoolOf(0);
    std::vector<std::pair<std::string, std::thread::id>> calls;
    pool->ProvisionMainThreadTask([&] { calls.emplace_back("main", std::this_thread::get_id()); });
    pool->ProvisionCompletionTask([&] { calls.emplace_back("done", std::this_thread::get_id()); });
    pool->Run();
    EXPECT_FALSE(pool->Wait());
    const auto caller = std::this_thread::get_id();
    EXPECT_THAT(calls, ElementsAre(Pair("main", caller), Pair("done", caller)));
}

// Goes on until the owner has met a busy pool and the worker without a task has been the last one.
TEST_P(NumaThreadPoolTest, WaitTellsABusyPoolAndReturnsBehindTheCompletionTask) {
    const auto pool = PoolOf(2);
    std::thread::id with_task;
    int runs = 0;
    int completions = 0;
    int without_task = 0;
    int busy = 0;
    pool->ProvisionTask([&with_task] { with_task = std::this_thread::get_id(); });
    pool->ProvisionCompletionTask([&] {
        std::this_thread::yield();
        if (std::this_thread::get_id() != with_task) ++without_task;
        ++completions;
    });
    EXPECT_FALSE(pool->Wait());
    EXPECT_TRUE(test::Eventually([&] {
        pool->Run();
        if (pool->Wait()) ++busy;
        EXPECT_EQ(completions, ++runs);
        EXPECT_FALSE(pool->Wait());
        return busy > 0 && without_task > 0;
    }));
}

// Plain counters, which the thread sanitizer watches.
TEST_P(NumaThreadPoolTest, RunsFollowOneAnotherAndEndWithTheCompletionTask) {
    const int runs = GetParam() ? 200 : 5'000;  // spinning threads may outnumber the CPUs
    const auto pool = PoolOf(2);
    std::array<int, 3> counts{};
    int completions = 0;
    int torn = 0;
    EXPECT_TRUE(pool->ProvisionTask([&counts] { ++counts[0]; }));
    EXPECT_TRUE(pool->ProvisionTask([&counts] { ++counts[1]; }));
    EXPECT_FALSE(pool->ProvisionTask([] {}));
    pool->ProvisionMainThreadTask([&counts] { ++counts[2]; });
    pool->ProvisionCompletionTask([&] {
        ++completions;
        if (counts[0] != completions || counts[1] != completions) ++torn;
    });
    for (int run = 0; run < runs; ++run) pool->Run();
    pool->Wait();
    EXPECT_THAT(counts, Each(runs));
    EXPECT_EQ(completions, runs);
    EXPECT_EQ(torn, 0);
}

TEST_P(NumaThreadPoolTest, EndsAtAnyMoment) {
    for (int i = 0; i < 60; ++i) {
        const auto pool = PoolOf(2);
        pool->ProvisionTask([] { std::this_thread::yield(); });
        if (i % 3 != 0) pool->Run();
        if (i % 3 == 1) pool->Wait();
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, NumaThreadPoolTest, Values(true, false),
                         [](const auto& kind) { return kind.param ? "Busy" : "Sleeping"; });

int CpusOfThisThread() {
    cpu_set_t cpus;
    return ::sched_getaffinity(0, sizeof(cpus), &cpus) == 0 ? CPU_COUNT(&cpus) : 0;
}

TEST(NumaThreadPoolOfAList, HasAWorkerForEachElement) {
    const int cpu = ::sched_getcpu();
    const auto node = test::NodeOf("pool: [5, {thread_name: named, cpu: " + std::to_string(cpu) +
                                   ", numa_buf_size: 8192}, {cpu: 1000}]\nscalar: 5\n");
    NumaThreadPool pool{node, "pool", false};
    std::array<std::pair<std::string, int>, 3> workers;
    for (auto& worker : workers) {
        pool.ProvisionTask([&worker] {
            std::array<char, 16> name{};
            ::pthread_getname_np(::pthread_self(), name.data(), name.size());
            worker = {name.data(), CpusOfThisThread()};
        });
    }
    EXPECT_FALSE(pool.ProvisionTask([] {}));
    pool.Run();
    pool.Wait();
    const int all = CpusOfThisThread();
    EXPECT_THAT(workers,
                ElementsAre(Pair("pool_th_0", all), Pair("named", nodepin::GetNodeOfCpu(cpu) ? 1 : all),
                            Pair("pool_th_2", all)));
    for (const char* key : {"scalar", "missing"})
        EXPECT_FALSE((NumaThreadPool{node, key, true}.ProvisionTask([] {}))) << key;
}

TEST(NumaThreadPoolOfAList, FindsEachBadValueUnderAReviewAndThrowsTheFirstInARun) {
    const auto node = test::NodeOf(
        "pool:\n  - {cpu: abc, busy: 2}\n  - {numa_buf_size: -1, thread_name: [a]}\n"
        "  - {priority: 100}\n  - {priority: -1}\n");
    EXPECT_THAT(test::TextOf<oru::configng::PliConfigError>([&] {
                    NumaThreadPool{node, "pool", false};
                }),
                HasSubstr("pool[0].cpu"));
    const oru::configng::PliConfigReview review;
    const NumaThreadPool pool{node, "pool", false};
    std::vector<std::string> places;
    for (const PliConfigFinding& finding : review.Findings())
        places.push_back(finding.where + " " + finding.path);
    EXPECT_THAT(places, ElementsAre("test.yaml:2 pool[0].cpu", "test.yaml:2 pool[0].busy",
                                    "test.yaml:3 pool[1].thread_name", "test.yaml:3 pool[1].numa_buf_size",
                                    "test.yaml:4 pool[2].priority", "test.yaml:5 pool[3].priority"));
}

}  // namespace
}  // namespace vosk::common
