#pragma once

// One row of a camera frame, from light to counts: the innermost loop of the frame renderer.

#include <cstddef>
#include <cstdint>

namespace vosk::rig {

// One value a pixel.
struct RowFields {
    const float* light;  // counts of spots where the sensitivity is 1; not negative
    const float* sensitivity;
    const float* bias;
    const float* noise;  // of mean 0 and rms 1
};

// The same for all pixels of a row.
struct RowLevels {
    float background;     // of the sky, in the unit of the light
    float offset;         // onto the bias
    float gain;           // counts a photon
    float read_variance;  // square counts
};

// counts = bias + offset + mean + noise * sqrt(read_variance + gain * mean), with mean = (light + background)
// * sensitivity; rounded, halves to even, and clipped to 0..65535. Each operation in single precision and
// rounded by itself, so that every machine gives the same counts.
void RenderRow(const RowFields& fields, const RowLevels& levels, std::size_t count, std::uint16_t* counts);

}  // namespace vosk::rig
