// A program of its own: it counts every allocation of the process.

#include <vosk/ao_tasks/executor.hpp>
#include <vosk/test/allocationCount.hpp>

#include <mutex>
#include <shared_mutex>
#include <vosk/test/support.hpp>

namespace {

using namespace vosk::ao_tasks;
using namespace vosk::defs;

TEST(Executor, AllocatesNothingInAPass) {
    for (const bool delta : {true, false}) {
        const auto executor = std::make_unique<Executor>(
            CommandAssembly::Config{52},
            M4SaturationManagement::Config{delta, 200, std::vector<float>(M4_CMD_SIZE * 200, 0.1F), 1.0F,
                                           2.0F});
        const std::vector<float> values(M4_CMD_SIZE, 1.0F);
        const std::span<const float, M4_CMD_SIZE> all{values};
        const std::array<float, TIP_TILT_SIZE> u4_fs_tt{};
        std::shared_mutex u4_mutex;
        std::shared_mutex gpao_mutex;
        executor->PrintTimeStats();  // the log is set up on its first use
        const auto before = vosk::test::AllocationsOfAllThreads();
        ASSERT_GT(before, 0U);
        for (std::uint32_t mode = 0; mode < 8; ++mode) {
            std::shared_lock u4_lock{u4_mutex, std::defer_lock};
            std::shared_lock gpao_lock{gpao_mutex, std::defer_lock};
            executor->UpdateRefShape();
            executor->Step0_SetControlMode(static_cast<VoskControlMode>(mode));
            executor->Step1_CommandSplitting(all.first<WAVEFRONT_CMD_SIZE>());
            executor->Step2_CommandAssembly(u4_lock, gpao_lock, u4_fs_tt, all.first<INS_CMD_SIZE>());
            executor->Step3_ProcessM4SetpointData();
            executor->Step4a_ProcessM4SetpointAppliedData(all);
            executor->PrintTimeStats();
        }
        EXPECT_EQ(vosk::test::AllocationsOfAllThreads(), before);
    }
}

}  // namespace
