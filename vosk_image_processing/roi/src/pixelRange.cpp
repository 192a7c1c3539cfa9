#include <fmt/format.h>
#include <vosk/common/logger.hpp>
#include <vosk/image_processing/pixelRange.hpp>

#include <stdexcept>

namespace vosk::image_processing {

void RefuseRoi(const Roi& roi, std::size_t frame_width, std::size_t frame_height, const char* operation) {
    common::LogAndThrow<std::invalid_argument>(
        fmt::format("{}: ROI ({}..{}),({}..{}) does not fit a frame of {} x {}", operation, roi.x_start,
                    roi.x_stop, roi.y_start, roi.y_stop, frame_width, frame_height));
}

}  // namespace vosk::image_processing
