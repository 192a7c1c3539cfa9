#pragma once

// The moments of many equal ROIs of one frame at a time, a ROI a vector lane: each sum takes its pixels
// one after another in raster order, as a plain loop over the ROI does, and has the same bits.

#include <vosk/image_processing/centroiding.hpp>

#include <cstddef>
#include <span>

namespace vosk::image_processing::detail {

inline constexpr std::size_t MAX_BATCH = 16;

struct RegionBatch {
    std::span<const float* const> first_pixels;  // of each ROI; 1 to MAX_BATCH
    std::size_t stride;                          // of the frame
    std::size_t width;                           // of every ROI
    std::size_t height;
};

// Of all pixels. One element of `moments` a ROI.
void ManyMoments(const RegionBatch& batch, Moments* moments);

// Of the pixels at or above the threshold.
void ManyMomentsFrom(float threshold, const RegionBatch& batch, Moments* moments);

}  // namespace vosk::image_processing::detail
