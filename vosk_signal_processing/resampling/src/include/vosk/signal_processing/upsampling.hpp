#pragma once

// Several outputs for each input.

#include <vosk/signal_processing/resampling.hpp>

#include <algorithm>
#include <array>
#include <cmath>

namespace vosk::signal_processing {

// Gives output_rate / input_rate outputs after each input, one output interval apart from the input's time
// on, numbered from 1. Numbers go on along the line through the last two inputs; a payload without access is
// held. An input that is late makes the outputs that its delay used up fall out; a consumer that is behind
// keeps its phase.
template <ResamplerSample T, class A>
class LerpUpsampler : public ExpectedInputRateResampler<T, A> {
public:
    // Rates in samples per second. Refused with std::runtime_error: an output rate below the input rate or
    // no multiple of it, and what the bases refuse.
    LerpUpsampler(std::size_t input_rate, std::size_t output_rate, Duration stop_interval)
        : ExpectedInputRateResampler<T, A>{input_rate, output_rate, stop_interval},
          m_upsampling_factor{output_rate / input_rate},
          m_output_index{m_upsampling_factor} {
        if (output_rate < input_rate) {
            common::LogAndThrow("LerpUpsampler: expected input rate is greater than output rate");
        }
        if (output_rate % input_rate != 0) {
            common::LogAndThrow("LerpUpsampler: output rate is not divisible by input rate");
        }
    }

    bool HasSamples() override {
        const std::lock_guard lock{this->m_mutex};
        return m_output_index < m_upsampling_factor && !this->IsTooOld(m_samples[m_newest]);
    }

    void AddSample(const T& sample) override {
        const std::lock_guard lock{this->m_mutex};
        if (m_newest == NONE) {
            m_samples = {sample, sample};
            m_newest = 1;
        } else {
            m_newest = 1 - m_newest;
            m_samples[m_newest] = sample;
        }

        const auto step = detail::Subtract(Nanoseconds(sample), Nanoseconds(Older()));
        const auto covered =
            std::max(step, this->m_expected_input_interval.count()) / this->m_output_interval.count();
        // Negative while outputs of the last input are left.
        const auto ahead = static_cast<std::int64_t>(m_output_index) - Factor();
        m_output_index =
            static_cast<std::size_t>(std::max(detail::Add(covered, ahead), std::int64_t{0}) % Factor());
    }

    // Empty also before the first input. Goes on along the line past the outputs that are due.
    std::optional<T> GetSample() override {
        const std::lock_guard lock{this->m_mutex};
        if (m_newest == NONE || this->IsTooOld(m_samples[m_newest])) return std::nullopt;
        T output = m_samples[m_newest];
        const auto offset =
            detail::Multiply(this->m_output_interval.count(), static_cast<std::int64_t>(m_output_index));
        output.timestamp = TimePoint{Duration{detail::Add(Nanoseconds(output), offset)}};
        output.sample_id = ++m_output_sample_id;
        if constexpr (DataAccessorOf<A, T>) Extrapolate(output);
        ++m_output_index;
        return output;
    }

private:
    using TimePoint = atomclk::AtomClk::time_point;
    static constexpr std::size_t NONE = 2;

    static std::int64_t Nanoseconds(const T& sample) noexcept {
        return sample.timestamp.time_since_epoch().count();
    }

    std::int64_t Factor() const noexcept { return static_cast<std::int64_t>(m_upsampling_factor); }
    T& Older() noexcept { return m_samples[1 - m_newest]; }

    // From the newest input's values to those at m_output_index.
    void Extrapolate(T& output) noexcept {
        const double t = 1.0 + static_cast<double>(m_output_index) / static_cast<double>(m_upsampling_factor);
        const auto older = A::Values(Older());
        const auto values = A::Values(output);
        for (std::size_t i = 0; i < values.size(); ++i) {
            values[i] = static_cast<typename A::Value>(
                std::lerp(static_cast<double>(older[i]), static_cast<double>(values[i]), t));
        }
    }

    const std::size_t m_upsampling_factor;  // outputs an input
    // All guarded by m_mutex.
    std::size_t m_newest = NONE;           // where the newest of m_samples stands
    std::array<T, 2> m_samples{};          // the last two inputs, by turns
    std::uint32_t m_output_sample_id = 0;  // of the last output
    std::size_t m_output_index;            // of the next output after the newest input
};

}  // namespace vosk::signal_processing
