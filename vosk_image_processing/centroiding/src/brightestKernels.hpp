#pragma once

// The loops that finding the brightest takes.

#include <cstddef>
#include <cstdint>
#include <span>

namespace vosk::image_processing::detail {

// The n-th largest key, or a smaller one that is still larger than the (n+1)-th; 0 < n <= keys.size().
std::int32_t FindLimit(std::span<const std::int32_t> keys, std::size_t n);

// Writes the places of the keys at or above the limit, in order, and tells how many; `places` has room for
// all keys.
std::size_t PlacesFrom(std::int32_t limit, std::span<const std::int32_t> keys, std::uint32_t* places);

// Writes the lower halves of the ranks in ascending order of the ranks, all of which differ. Looks at each
// pair, without a branch: for few.
void OrderFew(std::span<const std::uint64_t> ranks, std::uint32_t* places);

}  // namespace vosk::image_processing::detail
