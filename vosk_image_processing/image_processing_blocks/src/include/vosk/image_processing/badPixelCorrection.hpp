#pragma once

// Replaces bad pixels of a cleaned frame by a weighted mean of their 3 x 3 neighbourhood, before the centroid
// is taken. Constant after construction; a worker calls it for each of its ROIs.

#include <oru/configng/pliConfig.hpp>
#include <vosk/image_processing/roi.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace vosk::image_processing {

using BadPixel = std::pair<std::uint32_t, std::uint32_t>;  // x and y

bool Contains(const Roi& roi, const BadPixel& bad_pixel) noexcept;

class bad_pixel_correction_block {
public:
    // Width and height are those of the cleaned frame; bad pixels are (x, y), none of them on its border. The
    // weights are the kernel, row by row: 0 is up-left of the pixel, 4 the pixel itself. What breaks this is
    // thrown as std::runtime_error, without a log. Weights without a usable sum are taken, with a warning.
    bad_pixel_correction_block(std::uint32_t width, std::uint32_t height, std::vector<BadPixel> bad_pixels,
                               std::vector<float> pixel_weights);

    // Repairs the bad pixels of the ROI in place, in the order of the list, so that one next to another
    // sees its repaired value. `frame` is the whole cleaned frame, in which the pixels around the ROI must
    // be cleaned too; with another number of pixels the process ends. Allocates nothing.
    void work(std::span<float> frame, const Roi& roi) const;

    // The same in two steps, so that the first, which goes through the whole list, need not be in the frame's
    // path: which bad pixels lie in the ROI, and the repair of those.
    std::vector<BadPixel> BadPixelsOf(const Roi& roi) const;
    void Repair(std::span<float> frame, std::span<const BadPixel> bad_pixels) const;

private:
    void RepairPixel(std::span<float> frame, const BadPixel& bad_pixel) const;

    const std::uint32_t m_width;  // also the row stride
    const std::uint32_t m_height;
    const std::vector<BadPixel> m_bad_pixels;
    const std::vector<float> m_pixel_weights;
    const float m_weight_sum;  // in single precision, from the first to the last
};

namespace factory {

// From the map `node[key]`: two lists, `bad_pixels` of [x, y] and `pixel_weights`. Null when there is nothing
// to correct: no such map, no bad pixels or not 9 weights (logged at DEBUG), or no list (at WARN).
std::unique_ptr<bad_pixel_correction_block> CreateBadPixelCorrection(
    const oru::configng::PliConfigInstanceNode& node, const std::string& key, std::size_t width,
    std::size_t height);

// From the map itself; anything but a map is logged and thrown as std::runtime_error. A list that is no
// sequence is a PliConfigTypeError.
std::unique_ptr<bad_pixel_correction_block> CreateBadPixelCorrectionAlgorithm(
    const oru::configng::PliConfigInstanceNode& node, std::size_t width, std::size_t height);

}  // namespace factory
}  // namespace vosk::image_processing
