// A program of its own: it counts every allocation of the process.

#include <vosk/ao_tasks/executor.hpp>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <span>
#include <vector>

namespace {

std::atomic<std::size_t> allocations{0};

void* Allocate(std::size_t size, std::size_t alignment) {
    ++allocations;
    if (void* memory = std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment))
        return memory;
    throw std::bad_alloc{};
}

}  // namespace

// None inlined, or the compiler sees a free() of memory that did not come from malloc().
[[gnu::noinline]] void* operator new(std::size_t size) {
    return Allocate(size, alignof(std::max_align_t));
}
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment) {
    return Allocate(size, static_cast<std::size_t>(alignment));
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}

namespace {

using namespace vosk::ao_tasks;
using namespace vosk::defs;

TEST(Executor, AllocatesNothingInAPass) {
    for (const bool delta : {true, false}) {
        const auto executor = std::make_unique<Executor>(
            CommandAssembly::Config{52},
            M4SaturationManagement::Config{delta, 200, std::vector<float>(M4_CMD_SIZE * 200, 0.1F), 1.0F,
                                           2.0F});
        const std::vector<float> command(WAVEFRONT_CMD_SIZE, 1.0F);
        const std::vector<float> gpao(INS_CMD_SIZE, 1.0F);
        const std::vector<float> applied(M4_CMD_SIZE, 0.5F);
        const std::array<float, TIP_TILT_SIZE> u4_fs_tt{};
        std::shared_mutex u4_mutex;
        std::shared_mutex gpao_mutex;
        executor->PrintTimeStats();  // the log is set up on its first use
        const std::size_t before = allocations;
        ASSERT_GT(before, 0U);
        for (std::uint32_t mode = 0; mode < 8; ++mode) {
            std::shared_lock u4_lock{u4_mutex, std::defer_lock};
            std::shared_lock gpao_lock{gpao_mutex, std::defer_lock};
            executor->UpdateRefShape();
            executor->Step0_SetControlMode(static_cast<VoskControlMode>(mode));
            executor->Step1_CommandSplitting(std::span<const float, WAVEFRONT_CMD_SIZE>{command});
            executor->Step2_CommandAssembly(u4_lock, gpao_lock, u4_fs_tt,
                                            std::span<const float, INS_CMD_SIZE>{gpao});
            executor->Step3_ProcessM4SetpointData();
            executor->Step4a_ProcessM4SetpointAppliedData(std::span<const float, M4_CMD_SIZE>{applied});
            executor->PrintTimeStats();
        }
        EXPECT_EQ(allocations, before);
    }
}

}  // namespace
