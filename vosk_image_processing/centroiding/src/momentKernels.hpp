#pragma once

// The moments of many equal regions of one frame at a time, a region a vector lane: each sum takes its pixels
// one after another in raster order, as a plain loop over the region does, and has the same bits.

#include <vosk/image_processing/centroiding.hpp>

#include <cstddef>
#include <span>

namespace vosk::image_processing::detail {

inline constexpr std::size_t MAX_BATCH = 16;

struct RegionBatch {
    std::span<const float* const> first_pixels;  // of each region; 1 to MAX_BATCH
    std::size_t stride;                          // of the frame
    std::size_t width;                           // of every region
    std::size_t height;
};

// Of all pixels. One element of `moments` a region.
void ManyMoments(const RegionBatch& batch, Moments* moments);

// Of the pixels at or above the threshold.
void ManyMomentsFrom(float threshold, const RegionBatch& batch, Moments* moments);

}  // namespace vosk::image_processing::detail
