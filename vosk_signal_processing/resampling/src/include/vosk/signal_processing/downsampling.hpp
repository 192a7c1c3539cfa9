#pragma once

// One output for several inputs.

#include <vosk/signal_processing/resampling.hpp>

namespace vosk::signal_processing {

// An output is due with the first input. The next one is due N = input_rate / output_rate inputs later, or
// with an ID that is at least N higher, whichever comes first: a gap in the IDs counts as lost inputs. A read
// gives the newest input, under a number of its own that counts the reads from 1.
template <ResamplerSample T, class A>
class SampleIdDecimatingDownsampler : public StopIntervalResampler<T, A> {
public:
    // Rates in samples per second. Refused with std::runtime_error: an output rate of 0, one above the input
    // rate, and an input rate that is no multiple of it.
    SampleIdDecimatingDownsampler(std::size_t input_rate, std::size_t output_rate, Duration stop_interval)
        : StopIntervalResampler<T, A>{stop_interval}, m_decimation{DecimationOf(input_rate, output_rate)} {}

    bool HasSamples() override {
        const std::lock_guard lock{this->m_mutex};
        return this->IsDue(m_sample);
    }

    void AddSample(const T& sample) override {
        const std::lock_guard lock{this->m_mutex};
        ++m_input_count;
        if (m_input_count >= m_decimation || sample.sample_id >= m_next_sample_id) {
            m_input_count = 0;
            m_next_sample_id = sample.sample_id + static_cast<std::uint32_t>(m_decimation);
            m_sample.has_value = true;
        }
        m_sample.sample = sample;
    }

    std::optional<T> GetSample() override {
        const std::lock_guard lock{this->m_mutex};
        auto output = this->Take(m_sample);
        if (output) output->sample_id = ++m_output_sample_id;
        return output;
    }

private:
    static std::size_t DecimationOf(std::size_t input_rate, std::size_t output_rate) {
        if (input_rate < output_rate) {
            common::LogAndThrow("SampleIdDecimatingDownsampler: output rate is greater than input rate");
        }
        if (output_rate == 0) common::LogAndThrow("SampleIdDecimatingDownsampler: output rate is 0");
        if (input_rate % output_rate != 0) {
            common::LogAndThrow("SampleIdDecimatingDownsampler: input rate is not divisible by output rate");
        }
        return input_rate / output_rate;
    }

    const std::size_t m_decimation;  // inputs an output
    // All guarded by m_mutex.
    typename StopIntervalResampler<T, A>::Slot m_sample;  // the newest input
    std::uint32_t m_output_sample_id = 0;                 // of the last output
    std::uint32_t m_next_sample_id = 0;                   // from this ID on the next output is due
    std::uint64_t m_input_count = 0;                      // since the last output became due
};

}  // namespace vosk::signal_processing
