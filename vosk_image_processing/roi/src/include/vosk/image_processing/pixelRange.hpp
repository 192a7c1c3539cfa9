#pragma once

// The rectangle of a frame that a call works on, known to lie in the frame.

#include <vosk/image_processing/roi.hpp>

#include <cstddef>
#include <optional>

namespace vosk::image_processing {

struct PixelRange {
    std::size_t x_start;
    std::size_t x_stop;
    std::size_t y_start;
    std::size_t y_stop;

    std::size_t Width() const noexcept { return x_stop - x_start; }
};

// The whole frame without a ROI, no rows with a ROI that is empty, wherever that lies. A ROI that reaches out
// of the frame was made for another one: std::invalid_argument, in which `operation` names who was called.
PixelRange RangeOf(const std::optional<Roi>& roi, std::size_t frame_width, std::size_t frame_height,
                   const char* operation);

}  // namespace vosk::image_processing
