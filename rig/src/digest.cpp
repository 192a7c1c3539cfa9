#include "digest.hpp"

#include <cmath>
#include <cstdint>
#include <limits>

namespace vosk::rig {

Digest DigestOf(std::span<const float> values) {
    // From 1 to 2; neighbours differ.
    constexpr std::uint32_t GOLDEN = 2654435769U;
    constexpr double SCALE = 1.0 / 4294967296.0;
    Digest digest;
    std::uint32_t step = 0;
    for (const float value : values) {
        const double weighted = (1.0 + SCALE * step) * static_cast<double>(value);
        digest.sum += weighted;
        digest.size += std::abs(weighted);
        step += GOLDEN;
    }
    return digest;
}

bool IsDifference(const Digest& difference, const Digest& minuend, const Digest& subtrahend) {
    if (subtrahend == Digest{}) return difference == minuend;
    // Each value is rounded once; what the sums in double precision lose is far less.
    const double tolerance = std::numeric_limits<float>::epsilon() * (minuend.size + subtrahend.size);
    return std::abs(difference.sum - (minuend.sum - subtrahend.sum)) <= tolerance;
}

}  // namespace vosk::rig
