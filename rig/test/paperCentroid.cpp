#include "paperCentroid.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace vosk::rig {
namespace {

constexpr double ROUNDING_VARIANCE = 1.0 / 12.0;

double UpperTail(double z) {
    return 0.5 * std::erfc(z / std::numbers::sqrt2);
}
double Density(double z) {
    return std::exp(-0.5 * z * z) / std::sqrt(2.0 * std::numbers::pi);
}

// The share of a Gaussian that falls on a pixel, along one axis.
double Share(double pixel, double center, double rms) {
    return UpperTail((pixel - 0.5 - center) / rms) - UpperTail((pixel + 0.5 - center) / rms);
}

// Of a pixel that counts from a threshold on.
struct Cut {
    double mean;
    double variance;
    double slope;
};

Cut CutAt(double threshold, double mean, double rms) {
    const double z = (threshold - mean) / rms;
    if (z < -9.0) return {mean, rms * rms, 1.0};
    const double tail = UpperTail(z);
    const double density = Density(z);
    const double first = mean * tail + rms * density;
    const double second = (mean * mean + rms * rms) * tail + rms * (mean + threshold) * density;
    return {first, second - first * first, tail + threshold * density / rms};
}

}  // namespace

PaperCentroid::PaperCentroid(const CameraSensor& sensor, const image_processing::Roi& roi, const Spot& spot,
                             std::size_t bias_pixels)
    : m_roi(roi) {
    const CameraModel& model = sensor.model;
    const double still = double{model.read_noise} * model.read_noise + ROUNDING_VARIANCE;
    m_common_variance = bias_pixels == 0 ? 0.0 : still / static_cast<double>(bias_pixels);
    for (std::size_t y = roi.y_start; y < roi.y_stop; ++y) {
        for (std::size_t x = roi.x_start; x < roi.x_stop; ++x) {
            const double column = static_cast<double>(x);
            const double row = static_cast<double>(y);
            const double light = model.background + spot.flux * Share(column, spot.x, model.spot_rms) *
                                                        Share(row, spot.y, model.spot_rms);
            const double flat = sensor.flat[y * model.Stride() + x];
            m_pixels.push_back({light,
                                std::sqrt(still + model.gain * light * flat) / flat,
                                1.0 / flat,
                                (y / FrameRenderer::GROUP_ROWS) - roi.y_start / FrameRenderer::GROUP_ROWS,
                                {1.0, column, row}});
        }
    }
}

PaperCentroid::Sums PaperCentroid::SumFrom(double threshold) const {
    std::vector<Cut> cuts;
    Sums sums;
    for (const Pixel& pixel : m_pixels) {
        cuts.push_back(CutAt(threshold, pixel.mean, pixel.rms));
        for (std::size_t k = 0; k < 3; ++k) sums.mean[k] += pixel.weights[k] * cuts.back().mean;
    }
    for (std::size_t k = 0; k < 3; ++k) {
        const double position = k == 0 ? 0.0 : sums.mean[k] / sums.mean[0];
        std::vector<double> common(m_roi.height / FrameRenderer::GROUP_ROWS + 2);
        for (std::size_t i = 0; i < m_pixels.size(); ++i) {
            const Pixel& pixel = m_pixels[i];
            const double weight = pixel.weights[k] - position * pixel.weights[0];
            sums.variance[k] += weight * weight * cuts[i].variance;
            common[pixel.group] += weight * cuts[i].slope * pixel.common;
        }
        for (const double weight : common) sums.common_variance[k] += weight * weight * m_common_variance;
        sums.variance[k] += sums.common_variance[k];
    }
    return sums;
}

Expected PaperCentroid::From(double threshold) const {
    const Sums sums = SumFrom(threshold);
    const auto quantity = [&](std::size_t k, double scale) {
        return Quantity{sums.mean[k] / scale, std::sqrt(sums.variance[k]) / scale,
                        sums.common_variance[k] / sums.variance[k]};
    };
    return {quantity(0, 1.0), quantity(1, sums.mean[0]), quantity(2, sums.mean[0])};
}

}  // namespace vosk::rig
