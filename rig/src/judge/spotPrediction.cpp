#include "judge/spotPrediction.hpp"

#include <cmath>
#include <numbers>

namespace vosk::rig {
namespace {

// Of a normal value that counts as 0 below the threshold.
struct Moments {
    double mean;
    double variance;
};

Moments CutOff(double mean, double noise, double threshold) {
    const double place = (mean - threshold) / noise;
    if (place > 8.0) return {mean, noise * noise};
    if (place < -8.0) return {0.0, 0.0};
    const double above = 0.5 * std::erfc(-place / std::numbers::sqrt2);
    const double edge = std::exp(-0.5 * place * place) / std::sqrt(2.0 * std::numbers::pi);
    const double first = mean * above + noise * edge;
    const double second = (mean * mean + noise * noise) * above + noise * (mean + threshold) * edge;
    return {first, second - first * first};
}

// What a spot leaves on the pixels of one axis.
class AxisShares {
public:
    AxisShares(const SpotProfile& profile, double center) : m_shares(profile.Size()) {
        m_first = profile.Evaluate(center, m_shares);
    }
    double At(std::size_t pixel) const {
        const std::ptrdiff_t place = static_cast<std::ptrdiff_t>(pixel) - m_first;
        const bool is_inside = place >= 0 && place < static_cast<std::ptrdiff_t>(m_shares.size());
        return is_inside ? double{m_shares[static_cast<std::size_t>(place)]} : 0.0;
    }

private:
    std::vector<float> m_shares;
    std::ptrdiff_t m_first;
};

struct SpotLight {
    SpotLight(const SpotProfile& profile, const Spot& spot)
        : flux(spot.flux), columns(profile, spot.x), rows(profile, spot.y) {}
    double At(std::size_t x, std::size_t y) const { return flux * columns.At(x) * rows.At(y); }

    double flux;
    AxisShares columns;
    AxisShares rows;
};

bool IsNear(const Spot& spot, const SpotRegion& region, double reach) {
    const auto is_near = [reach](double place, std::size_t start, std::size_t stop) {
        return place > static_cast<double>(start) - reach && place < static_cast<double>(stop) + reach;
    };
    return is_near(spot.x, region.x_start, region.x_stop) && is_near(spot.y, region.y_start, region.y_stop);
}

bool IsRead(const PixelWindow& window, std::size_t x, std::size_t y) {
    return window.width == 0 ||
           (x >= window.x && x < window.x + window.width && y >= window.y && y < window.y + window.height);
}

}  // namespace

SpotPredictor::SpotPredictor(const CameraSensor& sensor)
    : m_sensor(sensor), m_profile(sensor.model.spot_rms), m_is_bad(sensor.model.width * sensor.model.height) {
    for (const BadPixel& pixel : sensor.bad_pixels) m_is_bad[pixel.y * sensor.model.width + pixel.x] = 1;
}

SpotPrediction SpotPredictor::Predict(std::span<const Spot> spots, const SpotRegion& region,
                                      const PixelWindow& window, double threshold) const {
    constexpr double ROUNDING = 1.0 / 12.0;
    const CameraModel& model = m_sensor.model;
    const double read = double{model.read_noise} * model.read_noise + ROUNDING;
    std::vector<SpotLight> lights;
    for (const Spot& spot : spots)
        if (IsNear(spot, region, static_cast<double>(m_profile.Size()))) lights.emplace_back(m_profile, spot);
    struct Pixel {
        double x, y, variance;
    };
    std::vector<Pixel> pixels;
    SpotPrediction result;
    double sum_x = 0.0;
    double sum_y = 0.0;
    const auto measured = [&](std::size_t x, std::size_t y) {
        if (!IsRead(window, x, y)) return Moments{0.0, 0.0};
        const double flat = m_sensor.flat[y * model.Stride() + x];
        double light = double{model.background};
        for (const SpotLight& spot : lights) light += spot.At(x, y);
        return Moments{light, (read + double{model.gain} * light * flat) / (flat * flat)};
    };
    // The mean of its eight neighbours, none of which is bad.
    const auto repaired = [&](std::size_t x, std::size_t y) {
        Moments sum{0.0, 0.0};
        for (std::size_t i = 0; i < 9; ++i) {
            if (i == 4) continue;
            const Moments neighbour = measured(x + i % 3 - 1, y + i / 3 - 1);
            sum = {sum.mean + neighbour.mean / 8.0, sum.variance + neighbour.variance / 64.0};
        }
        return sum;
    };
    for (std::size_t y = region.y_start; y < region.y_stop; ++y) {
        for (std::size_t x = region.x_start; x < region.x_stop; ++x) {
            if (!IsRead(window, x, y)) continue;
            const bool is_bad = m_is_bad[y * model.width + x] != 0;
            result.has_bad_pixel = result.has_bad_pixel || is_bad;
            const Moments cleaned = is_bad ? repaired(x, y) : measured(x, y);
            const Moments value = CutOff(cleaned.mean, std::sqrt(cleaned.variance), threshold);
            if (value.mean == 0.0 && value.variance == 0.0) continue;
            const Pixel pixel{static_cast<double>(x), static_cast<double>(y), value.variance};
            result.flux += value.mean;
            sum_x += value.mean * pixel.x;
            sum_y += value.mean * pixel.y;
            pixels.push_back(pixel);
        }
    }
    // Nothing but a chance pixel of the sky.
    if (result.flux < model.spot_flux / 100.0) return {0.0, 0.0, 0.0, 0.0, 0.0, result.has_bad_pixel};
    const double center_x = sum_x / result.flux;
    const double center_y = sum_y / result.flux;
    for (const Pixel& pixel : pixels) {
        result.sigma_x += pixel.variance * (pixel.x - center_x) * (pixel.x - center_x);
        result.sigma_y += pixel.variance * (pixel.y - center_y) * (pixel.y - center_y);
    }
    result.sigma_x = std::sqrt(result.sigma_x) / result.flux;
    result.sigma_y = std::sqrt(result.sigma_y) / result.flux;
    result.x = center_x - region.ref_x;
    result.y = center_y - region.ref_y;
    return result;
}

}  // namespace vosk::rig
