#include "brightestKernels.hpp"

#include <algorithm>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "src/brightestKernels.cpp"
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

std::int32_t Limit(std::span<const std::int32_t> keys, std::size_t n) {
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

std::size_t Collect(std::int32_t limit, std::span<const std::int32_t> keys, std::uint32_t* places) {
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

void Order(std::span<const std::uint64_t> ranks, std::uint32_t* places) {
    for (const std::uint64_t rank : ranks) {
        std::uint64_t before = 0;
        for (const std::uint64_t other : ranks) before += other < rank ? 1U : 0U;
        places[before] = static_cast<std::uint32_t>(rank);
    }
}

}  // namespace
}  // namespace vosk::image_processing::detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace vosk::image_processing::detail {

HWY_EXPORT(Limit);
HWY_EXPORT(Collect);
HWY_EXPORT(Order);

std::int32_t FindLimit(std::span<const std::int32_t> keys, std::size_t n) {
    return HWY_DYNAMIC_DISPATCH(Limit)(keys, n);
}

std::size_t PlacesFrom(std::int32_t limit, std::span<const std::int32_t> keys, std::uint32_t* places) {
    return HWY_DYNAMIC_DISPATCH(Collect)(limit, keys, places);
}

void OrderFew(std::span<const std::uint64_t> ranks, std::uint32_t* places) {
    HWY_DYNAMIC_DISPATCH(Order)(ranks, places);
}

}  // namespace vosk::image_processing::detail
#endif
