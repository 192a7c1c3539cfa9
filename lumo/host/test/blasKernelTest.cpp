#include "../src/blasKernel.hpp"

#include <gtest/gtest.h>

using vosk::host::ChooseBetterKernel;
using vosk::host::CpuFeatures;

namespace {

constexpr CpuFeatures AVX512{.avx = true, .avx2 = true, .avx512 = true};
constexpr CpuFeatures AVX2{.avx = true, .avx2 = true};
constexpr CpuFeatures OLD{};

TEST(BlasKernel, FollowsTheCpuWhereTheLibraryDoesNotKnowIt) {
    EXPECT_EQ(ChooseBetterKernel("Prescott", "", AVX512), "SkylakeX");
    EXPECT_EQ(ChooseBetterKernel("Haswell", "", AVX512), "SkylakeX");
    EXPECT_EQ(ChooseBetterKernel("Nehalem", "", AVX2), "Haswell");
    EXPECT_EQ(ChooseBetterKernel("SkylakeX", "", AVX512), std::nullopt);
    EXPECT_EQ(ChooseBetterKernel("Zen", "", AVX2), std::nullopt);
    EXPECT_EQ(ChooseBetterKernel("Nehalem", "", OLD), std::nullopt);
}

TEST(BlasKernel, FollowsTheUserWhereTheCpuCan) {
    EXPECT_EQ(ChooseBetterKernel("Haswell", "Haswell", AVX512), std::nullopt);
    EXPECT_EQ(ChooseBetterKernel("Haswell", "haswell", AVX512), std::nullopt);
    EXPECT_EQ(ChooseBetterKernel("SkylakeX", "Nehalem", AVX512), "Nehalem");
    EXPECT_EQ(ChooseBetterKernel("Haswell", "SkylakeX", AVX2), std::nullopt);
    EXPECT_EQ(ChooseBetterKernel("Prescott", "SkylakeX", AVX2), "Haswell");
    EXPECT_EQ(ChooseBetterKernel("Prescott", "NoSuchKernel", AVX2), "Haswell");
}

}  // namespace
