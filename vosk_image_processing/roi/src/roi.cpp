#include <fmt/format.h>
#include <vosk/common/logger.hpp>
#include <vosk/image_processing/roi.hpp>

#include <algorithm>
#include <stdexcept>

namespace vosk::image_processing {

namespace {

// The smaller of two extents, of which one is a difference and therefore an int.
std::uint16_t Limited(int room, std::uint16_t margin) {
    return static_cast<std::uint16_t>(std::min<int>(room, margin));
}

// NaN is not outside.
bool IsOutside(double reference, std::uint16_t extent) {
    return reference < 0.0 || reference > extent;
}

}  // namespace

// The parameters of the constructors have names of their own, as g++ warns of those that hide a member.
Roi::Roi(std::uint16_t left, std::uint16_t right, std::uint16_t top, std::uint16_t bottom,
         std::uint16_t of_width, std::uint16_t of_height, double at_x, double at_y)
    : x_start{left},
      x_stop{right},
      y_start{top},
      y_stop{bottom},
      ref_x{at_x},
      ref_y{at_y},
      frame_width{of_width},
      frame_height{of_height} {
    if (y_stop < y_start || y_stop > frame_height || x_stop > frame_width || x_stop < x_start) {
        common::LogAndThrow<std::invalid_argument>(
            fmt::format("Roi: invalid coordinates: ({}..{}),({}..{})", x_start, x_stop, y_start, y_stop));
    }
    if (IsOutside(ref_x, frame_width) || IsOutside(ref_y, frame_height)) {
        common::LogAndThrow<std::invalid_argument>(
            fmt::format("Roi: invalid reference point: ({:.6f},{:.6f})", ref_x, ref_y));
    }
    Measure();
}

void Roi::Measure() {
    width = static_cast<std::uint16_t>(x_stop - x_start);
    height = static_cast<std::uint16_t>(y_stop - y_start);
    size = std::size_t{width} * height;
}

Roi Roi::Enlarge(std::uint16_t margin) const {
    Roi roi = *this;
    roi.x_start = static_cast<std::uint16_t>(roi.x_start - Limited(x_start, margin));
    roi.x_stop = static_cast<std::uint16_t>(roi.x_stop + Limited(frame_width - x_stop, margin));
    roi.y_start = static_cast<std::uint16_t>(roi.y_start - Limited(y_start, margin));
    roi.y_stop = static_cast<std::uint16_t>(roi.y_stop + Limited(frame_height - y_stop, margin));
    roi.Measure();
    return roi;
}

Window::Window(std::uint16_t left, std::uint16_t top, std::uint16_t columns, std::uint16_t rows)
    : x_offset{left}, y_offset{top}, width{columns}, height{rows}, size{std::size_t{columns} * rows} {}

Window::Window(std::uint16_t left, std::uint16_t top, std::uint16_t columns, std::uint16_t rows,
               std::uint16_t frame_width, std::uint16_t frame_height)
    : Window{left, top, columns, rows} {
    if (XStop() <= frame_width && YStop() <= frame_height) return;
    common::LogAndThrow<std::invalid_argument>(
        fmt::format("Window: invalid offsets: ({}..{}),({}..{})", x_offset, XStop(), y_offset, YStop()));
}

}  // namespace vosk::image_processing
