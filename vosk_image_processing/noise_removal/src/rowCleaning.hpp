#pragma once

// The arithmetic of noise removal on a stretch of pixels, as vectors of whatever the CPU has. Each pixel is
// rounded just as in a plain loop: all of it in double, one division, then to float.

#include <cstddef>
#include <cstdint>

namespace vosk::image_processing {

// cleaned[i] = (raw[i] - master_bias[i] - dynamic_bias) / flat[i]; a dynamic bias of 0.0 changes no bit.
void CleanPixels(const std::uint16_t* raw, const float* master_bias, const float* flat, double dynamic_bias,
                 float* cleaned, std::size_t count);

// The same where the counts lie apart: raw[positions[i]] stands for raw[i].
void CleanScatteredPixels(const std::uint16_t* raw, const std::uint32_t* positions, const float* master_bias,
                          const float* flat, double dynamic_bias, float* cleaned, std::size_t count);

}  // namespace vosk::image_processing
