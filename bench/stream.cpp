#include "bench.hpp"

namespace vosk::bench {

#if defined(__x86_64__)
__attribute__((target_clones("avx512f", "avx2", "default")))
#endif
float StreamFloats(const float* values, std::size_t count) {
    using Lanes = float __attribute__((vector_size(64), aligned(4)));
    constexpr std::size_t LANES = sizeof(Lanes) / sizeof(float);
    constexpr std::size_t SUMS = 8;
    Lanes sums[SUMS]{};
    std::size_t i = 0;
    for (; i + SUMS * LANES <= count; i += SUMS * LANES) {
        for (std::size_t sum = 0; sum < SUMS; ++sum) {
            sums[sum] += *reinterpret_cast<const Lanes*>(values + i + sum * LANES);
        }
    }
    float total = 0.0F;
    for (const Lanes& sum : sums) {
        for (std::size_t lane = 0; lane < LANES; ++lane) total += sum[lane];
    }
    for (; i < count; ++i) total += values[i];
    return total;
}

}  // namespace vosk::bench
