#include <lumolib/frameFigures.hpp>

#include <algorithm>
#include <cmath>
#include <utility>

namespace vosk::lumo {

void DurationHistogram::Add(std::chrono::nanoseconds duration) noexcept {
    static_assert(BucketOf(LONGEST) + 1 == BUCKETS && EndOf(BucketOf(LONGEST)) == LONGEST);
    const auto value = static_cast<std::uint64_t>(std::max<std::int64_t>(duration.count(), 0));
    ++m_buckets[BucketOf(std::min(value, LONGEST))];
    ++m_count;
}

std::chrono::nanoseconds DurationHistogram::GetQuantile(double share) const noexcept {
    const auto rank = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(m_count)));
    std::uint64_t counted = 0;
    for (std::size_t bucket = 0; counted < rank && bucket < m_buckets.size(); ++bucket) {
        counted += m_buckets[bucket];
        if (counted >= rank) return std::chrono::nanoseconds{static_cast<std::int64_t>(EndOf(bucket))};
    }
    return {};
}

void FrameFigures::RecordProcessingTime(std::chrono::nanoseconds duration) {
    const std::lock_guard lock{m_mutex};
    m_times.Add(duration);
}

void FrameFigures::RecordCentroid(const defs::Slope& slope) {
    const std::lock_guard lock{m_mutex};
    m_centroid = slope;
}

// The quantiles are looked for in a copy, so that the camera's thread waits for no search.
FrameTopic FrameFigures::GetTopicData() const {
    const auto [times, centroid] = [this] {
        const std::lock_guard lock{m_mutex};
        return std::pair{m_times, m_centroid};
    }();
    return {times.GetCount(), times.GetQuantile(0.5), times.GetQuantile(0.99), centroid};
}

void FrameFigures::Reset() {
    const std::lock_guard lock{m_mutex};
    m_times = {};
    m_centroid.reset();
}

}  // namespace vosk::lumo
