#pragma once

// Two rectangles. A Roi says which part of a frame is processed and where its spot should be, in coordinates
// of the full frame. A Window says which part of the sensor a camera has read out, and thereby how the raw
// data of a partial readout lie in memory. Both are values, made at set-up or a frame, and copied freely.

#include <cstddef>
#include <cstdint>

namespace vosk::image_processing {

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): few, and read best in this order
struct Roi {
    // Empty ones are legal. The reference point need not lie in the ROI, but must lie in the frame, its far
    // edges included; a NaN stands for a reference point that is not known. Otherwise std::invalid_argument.
    Roi(std::uint16_t x_start, std::uint16_t x_stop, std::uint16_t y_start, std::uint16_t y_stop,
        std::uint16_t frame_width, std::uint16_t frame_height, double ref_x, double ref_y);

    // Grown by the margin on every side, as far as the frame goes.
    Roi Enlarge(std::uint16_t margin) const;

    friend bool operator==(const Roi&, const Roi&) = default;

    std::uint16_t x_start;
    std::uint16_t x_stop;  // one past the last column
    std::uint16_t y_start;
    std::uint16_t y_stop;  // one past the last row
    double ref_x;          // in pixels of the full frame
    double ref_y;
    std::uint16_t width;
    std::uint16_t height;
    std::size_t size;  // in pixels
    std::uint16_t frame_width;
    std::uint16_t frame_height;

private:
    void Measure();
};

struct Window {
    // Taken as a camera reports it, without a check.
    Window(std::uint16_t x_offset, std::uint16_t y_offset, std::uint16_t width, std::uint16_t height);

    // std::invalid_argument unless it lies in a frame of that size, its far edges cut to 16 bits.
    Window(std::uint16_t x_offset, std::uint16_t y_offset, std::uint16_t width, std::uint16_t height,
           std::uint16_t frame_width, std::uint16_t frame_height);

    // One past the last column and row, in 16 bits as all coordinates are.
    std::uint16_t XStop() const noexcept { return static_cast<std::uint16_t>(x_offset + width); }
    std::uint16_t YStop() const noexcept { return static_cast<std::uint16_t>(y_offset + height); }

    friend bool operator==(const Window&, const Window&) = default;

    std::uint16_t x_offset;
    std::uint16_t y_offset;
    std::uint16_t width;
    std::uint16_t height;
    std::size_t size;  // in pixels
};

}  // namespace vosk::image_processing
