#pragma once

// Finds the n brightest of many pixels without sorting them all, in a time that does not depend on their
// order.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

namespace vosk::image_processing::detail {

// Pixels are ranked by integers in the order of their values: a total order, with NaN above all else.
inline std::int32_t BrightnessKey(float value) {
    if (value != value) return std::numeric_limits<std::int32_t>::max();
    const auto bits = std::bit_cast<std::int32_t>(value);
    return bits ^ ((bits >> 31) & std::numeric_limits<std::int32_t>::max());
}

// Leaves in places[0..n) where the n largest keys stand, the largest first, equal ones in the order of their
// places; 0 < n <= keys.size(). `places` is as long as the keys, its rest scratch; so is `ranked`, of
// RanksFor(n) or more.
void FindBrightest(std::span<const std::int32_t> keys, std::size_t n, std::span<std::uint32_t> places,
                   std::span<std::uint64_t> ranked);
std::size_t RanksFor(std::size_t n);

}  // namespace vosk::image_processing::detail
