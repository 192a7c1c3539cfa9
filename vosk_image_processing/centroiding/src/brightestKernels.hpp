#pragma once

// The loops of the search for the brightest pixels.

#include <cstddef>
#include <cstdint>
#include <span>

namespace vosk::image_processing::detail {

// The n-th largest key, or a smaller one that is still larger than the (n+1)-th; 0 < n <= keys.size().
std::int32_t FindLimit(std::span<const std::int32_t> keys, std::size_t n);

// Writes the places of the keys at or above the limit, in order, and returns their number; `places` has room
// for all keys.
std::size_t PlacesFrom(std::int32_t limit, std::span<const std::int32_t> keys, std::uint32_t* places);

// Seven vectors of 16 lanes. The pairs grow with the square of it, and soon a sort is as fast.
inline constexpr std::size_t MAX_PAIRWISE = 112;

// Puts at most MAX_PAIRWISE places in the order of their keys: the largest first, equal ones as they were.
// Looks at each pair, without a branch. No key is the smallest integer.
void OrderPairwise(std::span<const std::int32_t> keys, std::span<std::uint32_t> places);

}  // namespace vosk::image_processing::detail
