#include <fmt/format.h>
#include <vosk/common/logger.hpp>
#include <vosk/image_processing/pixelRange.hpp>

#include <stdexcept>

namespace vosk::image_processing {

PixelRange RangeOf(const std::optional<Roi>& roi, std::size_t frame_width, std::size_t frame_height,
                   const char* operation) {
    if (!roi) return {0, frame_width, 0, frame_height};
    if (roi->y_start >= roi->y_stop) return {0, 0, 0, 0};
    if (roi->x_start > roi->x_stop || roi->x_stop > frame_width || roi->y_stop > frame_height) {
        common::LogAndThrow<std::invalid_argument>(
            fmt::format("{}: ROI ({}..{}),({}..{}) does not fit a frame of {} x {}", operation, roi->x_start,
                        roi->x_stop, roi->y_start, roi->y_stop, frame_width, frame_height));
    }
    return {roi->x_start, roi->x_stop, roi->y_start, roi->y_stop};
}

}  // namespace vosk::image_processing
