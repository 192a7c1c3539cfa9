#pragma once

// How long a camera's frames are worked on, and what the last one gave. RuntimeMonitor makes one for each
// camera; the thread that processes the frames records into it, with one call a frame:
//
//     m_figures.frames->RecordProcessingTime(AtomClk::now() - begin);
//
// The host reads it from its own thread. Nothing here allocates; each call takes the mutex for a few stores.

#include <vosk/defs/valueTypes.hpp>

#include <array>
#include <bit>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>

namespace vosk::lumo {

// Counts of durations in buckets that are at most a sixteenth of their value wide.
class DurationHistogram {
public:
    // Negative ones count as 0, those beyond 68 s as 68 s.
    void Add(std::chrono::nanoseconds duration) noexcept;
    std::uint64_t GetCount() const noexcept { return m_count; }
    // The upper end of the bucket below or in which that share of the durations lies: up to 6% too long. 0
    // without any.
    std::chrono::nanoseconds GetQuantile(double share) const noexcept;

private:
    // Below 16 ns a bucket for each; above, 16 buckets for each factor of two.
    static constexpr unsigned STEP_BITS = 4;
    static constexpr std::uint64_t STEPS = 1U << STEP_BITS;
    static constexpr unsigned VALUE_BITS = 36;
    static constexpr std::uint64_t LONGEST = (std::uint64_t{1} << VALUE_BITS) - 1;
    static constexpr std::size_t BUCKETS = (VALUE_BITS - STEP_BITS + 1) * STEPS;

    static constexpr std::size_t BucketOf(std::uint64_t value) noexcept {
        if (value < STEPS) return value;
        const auto shift = static_cast<unsigned>(std::bit_width(value)) - STEP_BITS - 1;
        return shift * STEPS + (value >> shift);
    }
    static constexpr std::uint64_t EndOf(std::size_t bucket) noexcept {
        if (bucket < STEPS) return bucket;
        const std::size_t shift = bucket / STEPS - 1;
        return ((bucket % STEPS + STEPS + 1) << shift) - 1;
    }

    std::array<std::uint64_t, BUCKETS> m_buckets{};
    std::uint64_t m_count = 0;
};

// What the host reads.
struct FrameTopic {
    std::uint64_t processed = 0;     // frames of which a time was recorded
    std::chrono::nanoseconds p50{};  // of the processing times, since the threads were started
    std::chrono::nanoseconds p99{};
    std::optional<defs::Slope> centroid;  // of the last frame; none of a wavefront sensor
};

// On cache lines of its own: the next camera's is written from another CPU.
class alignas(64) FrameFigures {
public:
    // For the camera's thread, once a frame.
    void RecordProcessingTime(std::chrono::nanoseconds duration);
    // An imaging camera's.
    void RecordCentroid(const defs::Slope& slope);

    FrameTopic GetTopicData() const;
    void Reset();

private:
    mutable std::mutex m_mutex;
    DurationHistogram m_times;              // guarded by m_mutex
    std::optional<defs::Slope> m_centroid;  // guarded by m_mutex
};

}  // namespace vosk::lumo
