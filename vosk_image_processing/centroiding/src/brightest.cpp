#include "brightest.hpp"

#include <algorithm>
#include <numeric>

#include "brightestKernels.hpp"

namespace vosk::image_processing::detail {

namespace {

// Fewer keys are put in order faster than the brightest are found among them.
constexpr std::size_t SEARCH_PAYS_ABOVE = 64;
static_assert(SEARCH_PAYS_ABOVE <= MAX_PAIRWISE);

// Of more than n places, those above the limit and as many at the limit as there is room for.
void KeepFirst(std::span<const std::int32_t> keys, std::int32_t limit, std::size_t n,
               std::span<std::uint32_t> places) {
    const auto is_above = [&](std::uint32_t place) { return keys[place] > limit; };
    auto room = static_cast<std::ptrdiff_t>(n) - std::count_if(places.begin(), places.end(), is_above);
    std::size_t kept = 0;
    for (const std::uint32_t place : places) {
        if (is_above(place) || room-- > 0) places[kept++] = place;
    }
}

void SortPlaces(std::span<const std::int32_t> keys, std::span<std::uint32_t> places,
                std::span<std::uint64_t> ranked) {
    // A rank that grows with the place and shrinks with the key: larger keys first, then smaller places.
    const auto rank = [&](std::uint32_t place) {
        const std::uint32_t darkness = static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max()) -
                                       static_cast<std::uint32_t>(keys[place]);
        return std::uint64_t{darkness} << 32U | place;
    };
    std::transform(places.begin(), places.end(), ranked.begin(), rank);
    std::sort(ranked.begin(), ranked.end());
    std::transform(ranked.begin(), ranked.end(), places.begin(),
                   [](std::uint64_t ranking) { return static_cast<std::uint32_t>(ranking); });
}

}  // namespace

std::size_t RanksFor(std::size_t n) {
    return n <= MAX_PAIRWISE ? 0 : n;
}

void FindBrightest(std::span<const std::int32_t> keys, std::size_t n, std::span<std::uint32_t> places,
                   std::span<std::uint64_t> ranked) {
    if (keys.size() <= SEARCH_PAYS_ABOVE) {
        std::iota(places.begin(), places.end(), 0U);
        return OrderPairwise(keys, places);
    }
    const std::int32_t limit = FindLimit(keys, n);
    const std::size_t found = PlacesFrom(limit, keys, places.data());
    if (found > n) KeepFirst(keys, limit, n, places.first(found));
    if (n <= MAX_PAIRWISE) return OrderPairwise(keys, places.first(n));
    SortPlaces(keys, places.first(n), ranked.first(n));
}

}  // namespace vosk::image_processing::detail
