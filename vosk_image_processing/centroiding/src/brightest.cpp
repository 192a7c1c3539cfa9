#include "brightest.hpp"

#include <algorithm>

#include "brightestKernels.hpp"

namespace vosk::image_processing::detail {

namespace {

// Up to so many are ordered faster by looking at all pairs than by sorting.
constexpr std::size_t FEW = 100;

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

}  // namespace

void FindBrightest(std::span<const std::int32_t> keys, std::size_t n, std::span<std::uint32_t> places,
                   std::span<std::uint64_t> ranked) {
    const std::int32_t limit = FindLimit(keys, n);
    const std::size_t found = PlacesFrom(limit, keys, places.data());
    if (found > n) KeepFirst(keys, limit, n, places.first(found));

    // A rank that grows with the place and shrinks with the key: larger keys first, then smaller places.
    const auto rank = [&](std::uint32_t place) {
        const std::uint32_t darkness = static_cast<std::uint32_t>(std::numeric_limits<std::int32_t>::max()) -
                                       static_cast<std::uint32_t>(keys[place]);
        return std::uint64_t{darkness} << 32U | place;
    };
    const auto brightest = ranked.first(n);
    std::transform(places.begin(), places.begin() + static_cast<std::ptrdiff_t>(n), brightest.begin(), rank);
    if (n <= FEW) return OrderFew(brightest, places.data());
    std::sort(brightest.begin(), brightest.end());
    std::transform(brightest.begin(), brightest.end(), places.begin(),
                   [](std::uint64_t ranking) { return static_cast<std::uint32_t>(ranking); });
}

}  // namespace vosk::image_processing::detail
