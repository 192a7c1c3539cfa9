#pragma once

// The estimators as plain loops, in the order of additions that the fast forms keep.

#include <vosk/defs/valueTypes.hpp>
#include <vosk/image_processing/roi.hpp>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <span>
#include <vector>

namespace vosk::reference {

using image_processing::Roi;

inline defs::Slope SlopeAt(const Roi& roi, double saturation, double sum, double cx, double cy) {
    const auto clamp = [&](double value) {
        return value < -saturation ? -saturation : value > saturation ? saturation : value;
    };
    return {sum, clamp(roi.x_start + cx - roi.ref_x), clamp(roi.y_start + cy - roi.ref_y)};
}

// The centre of gravity of the pixels that `keep` keeps.
template <class Keep>
defs::Slope Gravity(std::span<const float> frame, const Roi& roi, double saturation, Keep keep) {
    double sum = 0.0;
    double x = 0.0;
    double y = 0.0;
    for (std::size_t dy = 0; dy < roi.height; ++dy) {
        const float* const row = frame.data() + (roi.y_start + dy) * roi.frame_width + roi.x_start;
        for (std::size_t dx = 0; dx < roi.width; ++dx) {
            if (!keep(row[dx])) continue;
            const double value = row[dx];
            sum += value;
            x += value * static_cast<double>(dx);
            y += value * static_cast<double>(dy);
        }
    }
    if (sum == 0.0) return {};
    return SlopeAt(roi, saturation, sum, x / sum, y / sum);
}

// By a full sort: NaN first, then the larger value, of equal ones the later in raster order.
inline defs::Slope Brightest(std::span<const float> frame, const Roi& roi, double saturation,
                             std::size_t nbrightest, bool weight_pixels) {
    struct Pixel {
        double value, dx, dy;
    };
    std::vector<Pixel> pixels(roi.size);
    auto next = pixels.rbegin();
    for (std::size_t dy = 0; dy < roi.height; ++dy) {
        const float* const row = frame.data() + (roi.y_start + dy) * roi.frame_width + roi.x_start;
        for (std::size_t dx = 0; dx < roi.width; ++dx) {
            *next++ = {row[dx], static_cast<double>(dx), static_cast<double>(dy)};
        }
    }
    std::stable_sort(pixels.begin(), pixels.end(), [](const Pixel& left, const Pixel& right) {
        if (std::isnan(left.value)) return !std::isnan(right.value);
        return left.value > right.value;
    });
    pixels.resize(std::min(nbrightest, pixels.size()));
    double sum = 0.0;
    double weighted_sum = 0.0;
    double weight = static_cast<double>(pixels.size());
    for (const Pixel& pixel : pixels) {
        sum += pixel.value;
        weighted_sum += weight-- * pixel.value;
    }
    if (sum == 0.0) return {};
    double x = 0.0;
    double y = 0.0;
    weight = static_cast<double>(pixels.size());
    for (const Pixel& pixel : pixels) {
        const double share = !weight_pixels        ? pixel.value / sum
                             : weighted_sum == 0.0 ? 0.0
                                                   : weight * pixel.value / weighted_sum;
        --weight;
        x += share * pixel.dx;
        y += share * pixel.dy;
    }
    return SlopeAt(roi, saturation, sum, x, y);
}

}  // namespace vosk::reference
