#pragma once

// The arithmetic of noise removal, in vectors of whatever the CPU has. Each pixel is rounded just as in a
// plain loop: all of it in double, one division (or what gives its bits), then to float.

#include <vosk/image_processing/scrambling.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace vosk::image_processing {

// Pixels of one row of the cleaned frame, or as many of each of several rows one below another.
struct Stretch {
    const std::uint16_t* raw;        // the count of the first pixel; with positions: the raw frame
    const std::uint32_t* positions;  // null, or where in the raw frame each pixel's count is
    // Without positions, from a count to the next: 1, TAP_STEP or -TAP_STEP. Of a tap, TAP_STEP values can be
    // read from each count on, the last one too.
    std::ptrdiff_t step;
    std::size_t first;  // in the cleaned frame, as an index
    std::size_t count;
    double dynamic_bias;  // 0.0 changes no bit
    std::size_t rows;     // with positions: one
    std::ptrdiff_t raw_stride;
};

struct Calibration {
    const float* master_bias;
    const float* flat;
    bool is_ordinary;    // as IsOrdinary says of both; no dynamic bias is beyond 2^101 then
    std::size_t stride;  // of the cleaned frame and of both
};

// Whether no quotient can leave the range of a double, or its flat's reciprocal that of a float: so for any
// real camera.
bool IsOrdinary(std::span<const float> master_bias, std::span<const float> flat);

// cleaned = (raw - master_bias - dynamic_bias) / flat, for each pixel of the stretches.
void CleanStretches(const Stretch* stretches, std::size_t size, const Calibration& calibration,
                    float* cleaned);

// Collects stretches and cleans many at a time: those of a small ROI are so short that a call for each would
// take as long as its pixels. The last are cleaned by Finish().
class RowCleaning {
public:
    RowCleaning(const Calibration& calibration, float* cleaned)
        : m_calibration{calibration}, m_cleaned{cleaned} {}

    void Add(const Stretch& stretch) {
        if (m_size == m_stretches.size()) Finish();
        m_stretches[m_size++] = stretch;
    }

    void Finish() {
        CleanStretches(m_stretches.data(), m_size, m_calibration, m_cleaned);
        m_size = 0;
    }

private:
    Calibration m_calibration;
    float* m_cleaned;
    std::size_t m_size{0};
    std::array<Stretch, 32> m_stretches;  // the first m_size are set
};

}  // namespace vosk::image_processing
