#include "../src/machine.hpp"

#include <gmock/gmock.h>
#include <cerrno>

using namespace vosk::host;

namespace {

ThreadState State(bool busy, int priority, int given) {
    return {"T", {.cpu = -1, .busy = busy, .priority = priority, .priority_given = given}};
}

TEST(Machine, NamesThePreemptionModel) {
    EXPECT_EQ(PreemptionModel("#1 SMP PREEMPT_DYNAMIC Debian", "none (voluntary) full"),
              "PREEMPT_DYNAMIC (voluntary)");
    EXPECT_EQ(PreemptionModel("#1 SMP PREEMPT_DYNAMIC Debian", ""), "PREEMPT_DYNAMIC");
    EXPECT_EQ(PreemptionModel("#1 SMP PREEMPT_RT Debian", ""), "PREEMPT_RT");
    EXPECT_EQ(PreemptionModel("#1 SMP Debian", ""), "no PREEMPT");
}

TEST(Machine, SaysWhatTheSystemRefused) {
    const Machine good = LookAtMachine({State(false, 0, 0), State(false, 5, 5)}, 0);
    EXPECT_EQ(good.memory, "locked");
    EXPECT_EQ(good.priority, "given to 1 of 1 threads");
    EXPECT_EQ(LookAtMachine({State(false, 0, 0)}, 0).priority, "not asked for");
    const std::string line = ToLine(LookAtMachine({State(false, 3, 3), State(false, 5, 0)}, EPERM));
    EXPECT_THAT(line, testing::HasSubstr("memory not locked: Operation not permitted, limit "));
    EXPECT_THAT(line, testing::HasSubstr("real-time priority given to 1 of 2 threads, limit "));
}

TEST(Machine, HasNoCpuToSpareWhereAsManyThreadsSpinAtAPriority) {
    EXPECT_TRUE(HasNoCpuToSpare({State(true, 1, 1), State(true, 1, 1)}, 2));
    EXPECT_FALSE(HasNoCpuToSpare({State(true, 1, 1), State(true, 1, 1)}, 3));
    EXPECT_FALSE(HasNoCpuToSpare({State(true, 0, 0), State(false, 1, 1)}, 1));
}

}  // namespace
