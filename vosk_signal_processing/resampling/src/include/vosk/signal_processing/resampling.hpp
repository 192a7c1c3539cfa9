#pragma once

// What stands between the producer and the consumer of a stream that run at rates of their own: the producer
// pushes samples, the consumer pulls them, and a resampler decides what the consumer sees. Here the contract
// of all resamplers and the simplest one; built at set-up, from configuration (resamplingFactory.hpp).
//
// Threads: one producer and one consumer. Each operation of a resampler holds its mutex for a few copies,
// that of a chain for all that it moves (resamplerContainer.hpp); none allocates or logs after construction.

#include <atomclk/atomClk.hpp>
#include <vosk/common/logger.hpp>

#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <utility>

namespace vosk::signal_processing {

using Duration = atomclk::AtomClk::duration;

// A small record with its time stamp, its ID, and a payload.
template <class T>
concept ResamplerSample = std::is_trivially_copyable_v<T> && std::default_initializable<T> &&
    requires(T sample) {
    { (sample.timestamp) } -> std::same_as<atomclk::AtomClk::time_point&>;
    { (sample.sample_id) } -> std::same_as<std::uint32_t&>;
};

// How a resampler reaches the numbers of a payload. This one does not: the payload travels as a whole.
template <class T>
struct NoDataAccessor {};

// For a sample whose Values() are an array of Value: a resampler may compute on them, one by one.
template <class T, class V>
struct DefaultDataAccessor {
    using Value = V;
    static constexpr std::size_t SIZE = decltype(std::declval<T&>().Values())::extent;

    static std::span<Value, SIZE> Values(T& sample) noexcept { return sample.Values(); }
};

// Whether A gives access to the numbers of T.
template <class A, class T>
concept DataAccessorOf = requires(T& sample) {
    A::Values(sample);
};

namespace detail {

// Times that come from outside may be anything: sums and products that leave the range stop at its end.
inline constexpr std::int64_t FARTHEST = std::numeric_limits<std::int64_t>::max();

constexpr std::int64_t Add(std::int64_t a, std::int64_t b) noexcept {
    std::int64_t sum = 0;
    if (!__builtin_add_overflow(a, b, &sum)) return sum;
    return b < 0 ? std::numeric_limits<std::int64_t>::min() : FARTHEST;
}

constexpr std::int64_t Subtract(std::int64_t a, std::int64_t b) noexcept {
    std::int64_t difference = 0;
    if (!__builtin_sub_overflow(a, b, &difference)) return difference;
    return b < 0 ? FARTHEST : std::numeric_limits<std::int64_t>::min();
}

// Of two values that are not negative.
constexpr std::int64_t Multiply(std::int64_t a, std::int64_t b) noexcept {
    std::int64_t product = 0;
    return __builtin_mul_overflow(a, b, &product) ? FARTHEST : product;
}

// Whole nanoseconds from sample to sample at a rate in samples per second; `what` names the rate where it
// is 0, which is refused.
inline Duration IntervalOf(std::size_t rate, const char* what) {
    constexpr std::size_t NS_PER_SECOND = 1'000'000'000;
    if (rate == 0) common::LogAndThrow(std::string{what} + " must not be 0");
    return std::chrono::nanoseconds{static_cast<std::int64_t>(NS_PER_SECOND / rate)};
}

}  // namespace detail

// A mutex that its user may do without.
class OptionalMutex {
public:
    // Before another thread knows it.
    void Disable() noexcept { m_is_used = false; }

    void lock() {
        if (m_is_used) m_mutex.lock();
    }
    void unlock() {
        if (m_is_used) m_mutex.unlock();
    }

private:
    std::mutex m_mutex;
    bool m_is_used = true;  // constant once threads share it
};

// The base of all resamplers, for code that only keeps them.
class ResamplerBase {
public:
    virtual ~ResamplerBase() = default;
    ResamplerBase(const ResamplerBase&) = delete;
    ResamplerBase& operator=(const ResamplerBase&) = delete;

protected:
    ResamplerBase() = default;
};

template <ResamplerSample T>
class Resampler : public ResamplerBase {
public:
    using Sample = T;

    // Consumer: whether a new sample is due and not too old.
    virtual bool HasSamples() = 0;
    // Producer: takes any sample, also one that is too old already.
    virtual void AddSample(const T& sample) = 0;
    // Consumer: the present output, also if it is no new one; a consumer that wants each output once asks
    // HasSamples() first. Empty, without a change of state, if the data is too old.
    virtual std::optional<T> GetSample() = 0;

    // For an owner that calls the resampler under a mutex of its own, before any other thread knows it: each
    // operation leaves the resampler's mutex alone from then on.
    void LeaveLockingToOwner() noexcept { m_mutex.Disable(); }

protected:
    OptionalMutex m_mutex;
};

// Data stops flowing at a fixed time after its origin, however late it arrives.
template <ResamplerSample T, class A>
class StopIntervalResampler : public Resampler<T> {
protected:
    // A sample, and whether it is still to be read. It stays to be read again.
    struct Slot {
        T sample{};
        bool has_value = false;
    };

    // 0: data never gets too old. Negative: std::runtime_error.
    explicit StopIntervalResampler(Duration stop_interval) : m_stop_interval{stop_interval} {
        if (stop_interval < Duration::zero()) {
            common::LogAndThrow("StopIntervalResampler: stop interval must not be negative");
        }
    }

    bool IsTooOld(const T& sample) const noexcept {
        if (m_stop_interval == Duration::zero()) return false;
        const auto stop = detail::Add(sample.timestamp.time_since_epoch().count(), m_stop_interval.count());
        return stop <= atomclk::AtomClk::now().time_since_epoch().count();
    }

    bool IsDue(const Slot& slot) const noexcept { return slot.has_value && !IsTooOld(slot.sample); }

    // Empty, and the slot as it was, if the sample is too old.
    std::optional<T> Take(Slot& slot) const noexcept {
        if (IsTooOld(slot.sample)) return std::nullopt;
        slot.has_value = false;
        return slot.sample;
    }

    const Duration m_stop_interval;
};

template <ResamplerSample T, class A>
class OutputRateResampler : public StopIntervalResampler<T, A> {
protected:
    // Refused with std::runtime_error: a rate of 0, and one above a sample each nanosecond.
    OutputRateResampler(std::size_t output_rate, Duration stop_interval)
        : StopIntervalResampler<T, A>{stop_interval},
          m_output_interval{detail::IntervalOf(output_rate, "OutputRateResampler: output rate")} {
        if (m_output_interval == Duration::zero()) {
            common::LogAndThrow("OutputRateResampler: output rate must not be above 1000000000");
        }
    }

    const Duration m_output_interval;
};

template <ResamplerSample T, class A>
class ExpectedInputRateResampler : public OutputRateResampler<T, A> {
protected:
    // A rate of 0 is refused with std::runtime_error.
    ExpectedInputRateResampler(std::size_t expected_input_rate, std::size_t output_rate,
                               Duration stop_interval)
        : OutputRateResampler<T, A>{output_rate, stop_interval},
          m_expected_input_interval{
              detail::IntervalOf(expected_input_rate, "ExpectedInputRateResampler: expected input rate")} {}

    const Duration m_expected_input_interval;
};

// A mailbox for one sample, which passes unchanged; the newest input takes the place of one not read. Read
// before the first input, it gives a sample of zeroes.
template <ResamplerSample T, class A>
class IdentityResampler : public StopIntervalResampler<T, A> {
public:
    explicit IdentityResampler(Duration stop_interval) : StopIntervalResampler<T, A>{stop_interval} {}

    bool HasSamples() override {
        const std::lock_guard lock{this->m_mutex};
        return this->IsDue(m_sample);
    }

    void AddSample(const T& sample) override {
        const std::lock_guard lock{this->m_mutex};
        m_sample = {sample, true};
    }

    std::optional<T> GetSample() override {
        const std::lock_guard lock{this->m_mutex};
        return this->Take(m_sample);
    }

private:
    typename StopIntervalResampler<T, A>::Slot m_sample;  // guarded by m_mutex
};

}  // namespace vosk::signal_processing
