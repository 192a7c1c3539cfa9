#include "../src/blasKernel.hpp"

#include <gtest/gtest.h>

using vosk::host::ChooseBetterKernel;

namespace {

TEST(BlasKernel, FollowsTheCpuWhereTheLibraryDoesNotKnowIt) {
    EXPECT_EQ(ChooseBetterKernel("Prescott", {.avx2 = true, .avx512 = true}), "SkylakeX");
    EXPECT_EQ(ChooseBetterKernel("Haswell", {.avx2 = true, .avx512 = true}), "SkylakeX");
    EXPECT_EQ(ChooseBetterKernel("Nehalem", {.avx2 = true}), "Haswell");
    EXPECT_EQ(ChooseBetterKernel("Cooperlake", {.avx2 = true, .avx512 = true}), std::nullopt);
    EXPECT_EQ(ChooseBetterKernel("Zen", {.avx2 = true}), std::nullopt);
    EXPECT_EQ(ChooseBetterKernel("Nehalem", {}), std::nullopt);
}

}  // namespace
