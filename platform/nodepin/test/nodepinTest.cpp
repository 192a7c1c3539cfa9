#include <nodepin/nodepin.hpp>

#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/support.hpp>

using namespace testing;
using vosk::test::TextOf;

namespace {

constexpr int NO_SUCH_CPU = 1023;
constexpr std::size_t SIZE = 100'000;  // no whole number of pages

TEST(MakeThread, NamesAndBindsTheNewThreadOnlyAndMakesItsSleepsPrecise) {
    const int cpu = ::sched_getcpu();
    cpu_set_t before;
    ASSERT_EQ(::sched_getaffinity(0, sizeof(before), &before), 0);
    cpu_set_t bound;
    std::array<char, 16> name{};
    int slack_ns = 0;
    nodepin::NumaPolicies policies;
    policies.cpu_affinity = nodepin::CpuAffinity::MakeBindCpu(cpu);
    nodepin::MakeThread("WfsLisa_WFS_GP1_camera", policies, [&, movable_only = std::make_unique<int>()] {
        ::sched_getaffinity(0, sizeof(bound), &bound);
        ::pthread_getname_np(::pthread_self(), name.data(), name.size());
        slack_ns = ::prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
    }).join();
    EXPECT_STREQ(name.data(), "WfsLisa_WFS_GP1");
    EXPECT_EQ(CPU_COUNT(&bound), 1);
    EXPECT_TRUE(CPU_ISSET(static_cast<unsigned>(cpu), &bound));
    cpu_set_t after;
    ASSERT_EQ(::sched_getaffinity(0, sizeof(after), &after), 0);
    EXPECT_TRUE(CPU_EQUAL(&before, &after));
    const int policy = ::sched_getscheduler(0);  // a real-time thread has no slack
    EXPECT_TRUE(slack_ns == 1 || policy == SCHED_FIFO || policy == SCHED_RR);
}

TEST(MakeThread, TellsTheCreatorWhyAndNeverRunsTheBody) {
    nodepin::NumaPolicies policies;
    policies.cpu_affinity = nodepin::CpuAffinity::MakeBindCpu(NO_SUCH_CPU);
    bool ran = false;
    EXPECT_THAT(
        TextOf<std::system_error>([&] { nodepin::MakeThread("lost", policies, [&ran] { ran = true; }); }),
        AllOf(HasSubstr("lost: binding it to its CPU"), EndsWith(std::strerror(EINVAL))));
    EXPECT_FALSE(ran);
    EXPECT_FALSE(nodepin::GetNodeOfCpu(-1));
    EXPECT_FALSE(nodepin::GetNodeOfCpu(NO_SUCH_CPU));
}

// In nanoseconds; 0 of an older kernel.
std::uint64_t SliceOfThisThread() {
    std::array<std::uint64_t, 6> attributes{};  // sched_attr; the fourth is the slice
    ::syscall(SYS_sched_getattr, 0, attributes.data(), sizeof attributes, 0);
    return attributes[3];
}

// The kernel knows no priority above 99: the refusal that an unprivileged user meets at all of them.
TEST(MakeThread, RunsAtTheGivenPriorityAndAsAnOrdinaryThreadWhereItIsRefused) {
    std::uint64_t slice = 0;
    const auto priority_of = [&slice](int priority) {
        nodepin::NumaPolicies policies;
        policies.priority = priority;
        int given = -1;
        nodepin::MakeThread("ranked", policies, [&] {
            given = nodepin::PriorityOfThisThread();
            slice = SliceOfThisThread();
        }).join();
        return given;
    };
    const vosk::test::LogCapture log;
    EXPECT_EQ(priority_of(0), 0);
    const bool has_slices = slice != 0;
    EXPECT_EQ(priority_of(100), 0);
    EXPECT_EQ(slice, has_slices ? 100'000 : 0);
    EXPECT_THAT(log.Texts("Thread ranked runs without its priority 100: ", log4cplus::WARN_LOG_LEVEL),
                SizeIs(1));
    const sched_param lowest{1};
    if (::sched_setscheduler(0, SCHED_FIFO, &lowest) != 0) GTEST_SKIP() << "no priority is granted";
    const sched_param none{0};
    ::sched_setscheduler(0, SCHED_OTHER, &none);
    EXPECT_EQ(priority_of(3), 3);
}

// Locked at once means that no page is still to come.
TEST(Allocate, GivesLockableMemoryOnTheNodeOfTheCpu) {
    const auto node = nodepin::GetNodeOfCpu(::sched_getcpu());
    if (!node) GTEST_SKIP() << "no NUMA here";
    std::error_code error = std::make_error_code(std::errc::io_error);
    void* memory = nodepin::Allocate(SIZE, nodepin::MemPolicy::MakeBindNode(*node), error);
    ASSERT_FALSE(error) << error.message();
    ASSERT_NE(memory, nullptr);
    EXPECT_FALSE(nodepin::MemLock(memory, SIZE));
    std::array<unsigned char, SIZE / 4096 + 1> resident{};
    ASSERT_EQ(::mincore(memory, SIZE, resident.data()), 0);
    for (unsigned char page : resident) EXPECT_EQ(page & 1U, 1U);
    std::memset(memory, 0x5a, SIZE);
    nodepin::Free(memory, SIZE, error);
    EXPECT_FALSE(error);
}

TEST(Allocate, ReportsWhatItCannotDo) {
    std::error_code error;
    EXPECT_EQ(nodepin::Allocate(SIZE, nodepin::MemPolicy::MakeBindNode(1000), error), nullptr);
    EXPECT_TRUE(error);
    EXPECT_EQ(nodepin::Allocate(0, nodepin::MemPolicy::MakeBindNode(0), error), nullptr);
    EXPECT_EQ(error.value(), EINVAL);
    nodepin::Free(nullptr, SIZE, error);
    EXPECT_FALSE(error);
}

}  // namespace
