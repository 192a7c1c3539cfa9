#pragma once

// The estimators as loops that anybody can follow, in the order of additions that the fast forms must keep.

#include <vosk/defs/valueTypes.hpp>
#include <vosk/image_processing/roi.hpp>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <span>
#include <vector>

namespace vosk::image_processing::plain {

struct Pixel {
    float value;
    double dx;
    double dy;
};

inline std::vector<Pixel> Pixels(std::span<const float> frame, const Roi& roi) {
    std::vector<Pixel> pixels;
    for (std::size_t y = roi.y_start; y < roi.y_stop; ++y) {
        for (std::size_t x = roi.x_start; x < roi.x_stop; ++x) {
            pixels.push_back({frame[y * roi.frame_width + x], static_cast<double>(x - roi.x_start),
                              static_cast<double>(y - roi.y_start)});
        }
    }
    return pixels;
}

inline defs::Slope Finish(const Roi& roi, double saturation, double sum, double cx, double cy) {
    const auto clamp = [&](double value) {
        return value < -saturation ? -saturation : value > saturation ? saturation : value;
    };
    return {sum, clamp(roi.x_start + cx - roi.ref_x), clamp(roi.y_start + cy - roi.ref_y)};
}

// Of the pixels that `keep` keeps.
template <class Keep>
defs::Slope Gravity(std::span<const float> frame, const Roi& roi, double saturation, Keep keep) {
    double sum = 0.0;
    double x = 0.0;
    double y = 0.0;
    for (const Pixel& pixel : Pixels(frame, roi)) {
        if (!keep(pixel.value)) continue;
        const double value = pixel.value;
        sum += value;
        x += value * pixel.dx;
        y += value * pixel.dy;
    }
    if (sum == 0.0) return {};
    return Finish(roi, saturation, sum, x / sum, y / sum);
}

inline defs::Slope Brightest(std::span<const float> frame, const Roi& roi, double saturation,
                             std::size_t nbrightest, bool weight_pixels) {
    std::vector<Pixel> pixels = Pixels(frame, roi);
    std::reverse(pixels.begin(), pixels.end());
    std::stable_sort(pixels.begin(), pixels.end(), [](const Pixel& left, const Pixel& right) {
        if (std::isnan(left.value)) return !std::isnan(right.value);
        return left.value > right.value;
    });
    pixels.resize(std::min(nbrightest, pixels.size()));
    double sum = 0.0;
    double weighted_sum = 0.0;
    double weight = static_cast<double>(pixels.size());
    for (const Pixel& pixel : pixels) {
        sum += double{pixel.value};
        weighted_sum += weight-- * double{pixel.value};
    }
    if (sum == 0.0) return {};
    double x = 0.0;
    double y = 0.0;
    weight = static_cast<double>(pixels.size());
    for (const Pixel& pixel : pixels) {
        const double share = !weight_pixels        ? double{pixel.value} / sum
                             : weighted_sum == 0.0 ? 0.0
                                                   : weight * double{pixel.value} / weighted_sum;
        --weight;
        x += share * pixel.dx;
        y += share * pixel.dy;
    }
    return Finish(roi, saturation, sum, x, y);
}

}  // namespace vosk::image_processing::plain
