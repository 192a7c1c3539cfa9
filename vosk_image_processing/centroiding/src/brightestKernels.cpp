#include "brightestKernels.hpp"

#include <algorithm>
#include <array>
#include <limits>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "brightestKernels.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace vosk::image_processing::detail::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

// Plain loops: compilers make vectors of them, for each instruction set.
std::size_t CountFrom(std::int32_t limit, std::span<const std::int32_t> keys) {
    std::uint32_t count = 0;
    for (const std::int32_t key : keys) count += key >= limit ? 1U : 0U;
    return count;
}

std::int32_t FindLimit(std::span<const std::int32_t> keys, std::size_t n) {
    // n or more keys are at or above `low`, fewer are above `high`.
    std::int32_t smallest = keys.front();
    std::int32_t largest = keys.front();
    for (const std::int32_t key : keys) {
        smallest = std::min(smallest, key);
        largest = std::max(largest, key);
    }
    std::int64_t low = smallest;
    std::int64_t high = largest;
    while (low < high) {
        const std::int64_t middle = low + (high - low + 1) / 2;
        const std::size_t count = CountFrom(static_cast<std::int32_t>(middle), keys);
        if (count == n) return static_cast<std::int32_t>(middle);
        if (count > n) {
            low = middle;
        } else {
            high = middle - 1;
        }
    }
    return static_cast<std::int32_t>(low);
}

std::size_t PlacesFrom(std::int32_t limit, std::span<const std::int32_t> keys, std::uint32_t* places) {
    const hn::ScalableTag<std::int32_t> d;
    const hn::ScalableTag<std::uint32_t> p;
    const std::size_t lanes = hn::Lanes(d);
    const auto limits = hn::Set(d, limit);
    std::size_t count = 0;
    std::size_t i = 0;
    for (; i + lanes <= keys.size(); i += lanes) {
        const auto mask = hn::Not(hn::Gt(limits, hn::LoadU(d, keys.data() + i)));
        // A whole vector fits: no more places were found than keys looked at.
        const auto here = hn::Iota(p, static_cast<std::uint32_t>(i));
        hn::StoreU(hn::Compress(here, hn::RebindMask(p, mask)), p, places + count);
        count += hn::CountTrue(d, mask);
    }
    for (; i < keys.size(); ++i) {
        if (keys[i] >= limit) places[count++] = static_cast<std::uint32_t>(i);
    }
    return count;
}

void OrderPairwise(std::span<const std::int32_t> keys, std::span<std::uint32_t> places) {
    const hn::CappedTag<std::int32_t, 16> d;
    using V = hn::Vec<decltype(d)>;
    const std::size_t lanes = hn::Lanes(d);
    const V one = hn::Set(d, 1);
    // The last vector is filled up with the smallest integer, which no key is: it is counted before no key.
    std::array<std::int32_t, MAX_PAIRWISE> own;
    std::array<std::int32_t, MAX_PAIRWISE> ranks;
    const std::size_t size = places.size();
    const std::size_t blocks = (size + lanes - 1) / lanes;
    for (std::size_t i = 0; i < size; ++i) own[i] = keys[places[i]];
    std::fill(own.begin() + size, own.begin() + blocks * lanes, std::numeric_limits<std::int32_t>::min());

    for (std::size_t block = 0; block < blocks; ++block) {
        const V these = hn::LoadU(d, own.data() + block * lanes);
        // Of equal keys the earlier one comes first: for those, one less is enough to be larger.
        const V lower = hn::Sub(these, one);
        V before = hn::Zero(d);  // the number of keys that come before these
        const auto count = [&](std::int32_t other, V limits) HWY_ATTR {
            before = hn::IfThenElse(hn::Gt(hn::Set(d, other), limits), hn::Add(before, one), before);
        };
        for (std::size_t others = 0; others < blocks; ++others) {
            const std::int32_t* const other = own.data() + others * lanes;
            if (others == block) {
                for (std::size_t i = 0; i < lanes; ++i) {
                    const auto is_earlier = hn::Gt(hn::Iota(d, 0), hn::Set(d, static_cast<std::int32_t>(i)));
                    count(other[i], hn::IfThenElse(is_earlier, lower, these));
                }
            } else {
                const V limits = others < block ? lower : these;
                for (std::size_t i = 0; i < lanes; ++i) count(other[i], limits);
            }
        }
        hn::StoreU(before, d, ranks.data() + block * lanes);
    }
    std::array<std::uint32_t, MAX_PAIRWISE> ordered;
    for (std::size_t i = 0; i < size; ++i) ordered[static_cast<std::size_t>(ranks[i])] = places[i];
    std::copy_n(ordered.begin(), size, places.begin());
}

}  // namespace
}  // namespace vosk::image_processing::detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace vosk::image_processing::detail {

HWY_EXPORT(FindLimit);
HWY_EXPORT(PlacesFrom);
HWY_EXPORT(OrderPairwise);

std::int32_t FindLimit(std::span<const std::int32_t> keys, std::size_t n) {
    return HWY_DYNAMIC_DISPATCH(FindLimit)(keys, n);
}

std::size_t PlacesFrom(std::int32_t limit, std::span<const std::int32_t> keys, std::uint32_t* places) {
    return HWY_DYNAMIC_DISPATCH(PlacesFrom)(limit, keys, places);
}

void OrderPairwise(std::span<const std::int32_t> keys, std::span<std::uint32_t> places) {
    HWY_DYNAMIC_DISPATCH(OrderPairwise)(keys, places);
}

}  // namespace vosk::image_processing::detail
#endif
