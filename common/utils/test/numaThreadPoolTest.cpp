#include <vosk/common/numaThreadPool.hpp>

#include <numaif.h>
#include <pthread.h>
#include <sched.h>
#include <oru/configng/pliConfigReview.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

using namespace testing;

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
    std::vector<std::thread::id> calls;
    pool->ProvisionMainThreadTask([&] { calls.push_back(std::this_thread::get_id()); });
    pool->ProvisionCompletionTask([&] { calls.push_back(std::this_thread::get_id()); });
    pool->Run();
    EXPECT_FALSE(pool->Wait());
    EXPECT_EQ(calls, std::vector(2, std::this_thread::get_id()));
}

// Goes on until the owner has met a busy pool and the worker without a task has been the last one. Plain
// counters, which the thread sanitizer watches.
TEST_P(NumaThreadPoolTest, RunsFollowOneAnotherAndWaitReturnsBehindTheCompletionTask) {
    const auto pool = PoolOf(2);
    std::thread::id with_task;
    int task = 0;
    int main = 0;
    int completions = 0;
    int without_task = 0;
    int torn = 0;
    int runs = 0;
    int busy = 0;
    EXPECT_TRUE(pool->ProvisionTask([&] {
        with_task = std::this_thread::get_id();
        ++task;
    }));
    pool->ProvisionMainThreadTask([&main] { ++main; });
    pool->ProvisionCompletionTask([&] {
        std::this_thread::yield();
        if (std::this_thread::get_id() != with_task) ++without_task;
        if (++completions != task) ++torn;
    });
    EXPECT_FALSE(pool->Wait());
    EXPECT_TRUE(test::Eventually([&] {
        runs += 5;
        for (int run = 0; run < 5; ++run) pool->Run();
        if (pool->Wait()) ++busy;
        EXPECT_EQ(std::tuple(task, main, completions, torn), std::tuple(runs, runs, runs, 0));
        EXPECT_FALSE(pool->Wait());
        return busy > 0 && without_task > 0 && runs >= (GetParam() ? 200 : 5'000);
    }));
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
    EXPECT_FALSE((NumaThreadPool{node, "scalar", true}.ProvisionTask([] {})));
    int policy = -1;
    pool.RunOnNodeOf(1, [&policy] { ::get_mempolicy(&policy, nullptr, 0, nullptr, 0); });
    EXPECT_EQ(policy == MPOL_BIND, nodepin::GetNodeOfCpu(cpu).has_value());
    EXPECT_THROW(pool.RunOnNodeOf(1, [] { throw std::length_error{"thrown where it runs"}; }),
                 std::length_error);
}

TEST(NumaThreadPoolOfAList, FindsEachBadValueUnderAReviewAndThrowsTheFirstInARun) {
    const auto node = test::NodeOf(
        "pool: [{cpu: abc, busy: 2}, {numa_buf_size: -1, thread_name: [a]}, {priority: 100}, {priority: "
        "-1}]");
    EXPECT_THAT(test::TextOf([&] { NumaThreadPool{node, "pool", false}; }), HasSubstr("pool[0].cpu"));
    const oru::configng::PliConfigReview review;
    const NumaThreadPool pool{node, "pool", false};
    std::vector<std::string> paths;
    for (const auto& finding : review.Findings()) paths.push_back(finding.path);
    EXPECT_THAT(paths, ElementsAre("pool[0].cpu", "pool[0].busy", "pool[1].thread_name",
                                   "pool[1].numa_buf_size", "pool[2].priority", "pool[3].priority"));
}

}  // namespace
}  // namespace vosk::common
