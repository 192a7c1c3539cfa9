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
    std::size_t Height() const noexcept { return y_stop - y_start; }
    std::size_t Size() const noexcept { return Width() * Height(); }
};

[[noreturn]] void RefuseRoi(const Roi& roi, std::size_t frame_width, std::size_t frame_height,
                            const char* operation);

// From the ROI's starts to its stops; nothing, at the frame's first pixel, of a ROI without pixels, wherever
// that lies. A ROI that reaches out of the frame was made for another one: logged and thrown as
// std::invalid_argument, in which `operation` names the call.
inline PixelRange RangeOf(const Roi& roi, std::size_t frame_width, std::size_t frame_height,
                          const char* operation) {
    if (roi.x_start >= roi.x_stop || roi.y_start >= roi.y_stop) return {0, 0, 0, 0};
    if (roi.x_stop > frame_width || roi.y_stop > frame_height) {
        RefuseRoi(roi, frame_width, frame_height, operation);
    }
    return {roi.x_start, roi.x_stop, roi.y_start, roi.y_stop};
}

// The same; without a ROI the whole frame.
inline PixelRange RangeOf(const std::optional<Roi>& roi, std::size_t frame_width, std::size_t frame_height,
                          const char* operation) {
    if (!roi) return {0, frame_width, 0, frame_height};
    return RangeOf(*roi, frame_width, frame_height, operation);
}

}  // namespace vosk::image_processing
