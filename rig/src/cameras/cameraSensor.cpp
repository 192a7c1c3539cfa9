#include "cameras/cameraSensor.hpp"

#include "cameras/lisaReadout.hpp"
#include "portableRandom.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace vosk::rig {
namespace {

std::vector<std::uint32_t> LisaPositions() {
    std::vector<std::uint32_t> positions;
    positions.reserve(LisaReadout::RAW_WIDTH * LisaReadout::HEIGHT);
    for (std::size_t row = 0; row < LisaReadout::HEIGHT; ++row) {
        for (std::size_t column = 0; column < LisaReadout::WIDTH; ++column)
            positions.push_back(LisaReadout::PixelPosition(row, column));
        for (std::size_t index = 0; index < LisaReadout::RAW_WIDTH - LisaReadout::WIDTH; ++index)
            positions.push_back(LisaReadout::PrescanPosition(row, index));
    }
    return positions;
}

// From 1 in the middle down to 1 - vignetting in the corners.
double Vignette(const CameraModel& model, std::size_t row, std::size_t column) {
    const double x = 2.0 * static_cast<double>(column) / static_cast<double>(model.width - 1) - 1.0;
    const double y = 2.0 * static_cast<double>(row) / static_cast<double>(model.height - 1) - 1.0;
    return 1.0 - double{model.vignetting} * (x * x + y * y) / 2.0;
}

void FillBias(CameraSensor& sensor, PortableRandom& random) {
    const CameraModel& model = sensor.model;
    std::vector<double> levels(model.taps);
    for (double& level : levels)
        level = double{model.bias_level} + double{model.tap_spread} * random.Normal();
    for (std::size_t i = 0; i < sensor.bias.size(); ++i) {
        const std::size_t tap = sensor.position.empty() ? 0 : sensor.position[i] % model.taps;
        sensor.bias[i] = static_cast<float>(levels[tap] + double{model.bias_pattern} * random.Normal());
    }
}

void FillFlat(CameraSensor& sensor, PortableRandom& random) {
    const CameraModel& model = sensor.model;
    for (std::size_t row = 0; row < model.height; ++row) {
        for (std::size_t column = model.dark_columns; column < model.width - model.dark_columns; ++column) {
            const double pattern = 1.0 + double{model.flat_pattern} * random.Normal();
            const auto value = static_cast<float>(std::max(pattern, 0.5) * Vignette(model, row, column));
            sensor.flat[row * model.Stride() + column] = value;
            sensor.sensitivity[row * model.Stride() + column] = value;
        }
    }
}

bool IsNeighbour(const BadPixel& pixel, std::uint32_t x, std::uint32_t y) {
    const auto close = [](std::uint32_t a, std::uint32_t b) { return std::max(a, b) - std::min(a, b) <= 2; };
    return close(pixel.x, x) && close(pixel.y, y);
}

void ChooseBadPixels(CameraSensor& sensor, PortableRandom& random) {
    const CameraModel& model = sensor.model;
    while (sensor.bad_pixels.size() < model.bad_pixels) {
        const std::size_t margin = model.dark_columns + 1;
        const auto x = static_cast<std::uint32_t>(margin + random.Below(model.width - 2 * margin));
        const auto y = static_cast<std::uint32_t>(1 + random.Below(model.height - 2));
        if (std::any_of(sensor.bad_pixels.begin(), sensor.bad_pixels.end(),
                        [&](const BadPixel& pixel) { return IsNeighbour(pixel, x, y); }))
            continue;
        sensor.bad_pixels.push_back({x, y, random.Below(2) == 0});
        sensor.flat[y * model.Stride() + x] = 1.0F;
        sensor.sensitivity[y * model.Stride() + x] = 0.0F;
    }
    std::sort(sensor.bad_pixels.begin(), sensor.bad_pixels.end(),
              [](const BadPixel& a, const BadPixel& b) { return a.y != b.y ? a.y < b.y : a.x < b.x; });
}

}  // namespace

CameraModel LisaModel() {
    CameraModel model;
    model.name = "lisa";
    model.width = LisaReadout::WIDTH;
    model.height = LisaReadout::HEIGHT;
    model.prescan = LisaReadout::RAW_WIDTH - LisaReadout::WIDTH;
    model.dark_columns = 20;
    model.taps = LisaReadout::TAPS;
    model.bad_pixels = 64;
    model.bias_level = 1000.0F;
    model.tap_spread = 25.0F;
    model.bias_pattern = 2.0F;
    model.flat_pattern = 0.01F;
    model.vignetting = 0.1F;
    model.read_noise = 3.0F;
    model.background = 4.0F;
    model.drift_swing = 15.0F;
    model.drift_noise = 2.0F;
    model.spot_rms = 1.4;
    model.spot_flux = 4000.0;
    return model;
}

CameraModel AliceModel() {
    CameraModel model;
    model.name = "alice";
    model.width = 240;
    model.height = 240;
    model.bad_pixels = 8;
    model.bias_level = 300.0F;
    model.bias_pattern = 1.5F;
    model.flat_pattern = 0.015F;
    model.vignetting = 0.05F;
    model.read_noise = 2.0F;
    model.gain = 2.0F;
    model.background = 6.0F;
    model.spot_rms = 1.8;
    model.spot_flux = 30000.0;
    return model;
}

CameraModel MaranaModel() {
    CameraModel model;
    model.name = "marana";
    model.width = 2048;
    model.height = 2048;
    model.bad_pixels = 200;
    model.bias_level = 100.0F;
    model.bias_pattern = 1.0F;
    model.flat_pattern = 0.008F;
    model.vignetting = 0.2F;
    model.read_noise = 1.6F;
    model.background = 3.0F;
    model.spot_rms = 2.2;
    model.spot_flux = 50000.0;
    return model;
}

CameraModel ModelNamed(const std::string& name) {
    for (const CameraModel& model : {LisaModel(), AliceModel(), MaranaModel()}) {
        if (model.name == name) return model;
    }
    throw std::invalid_argument("no camera is called " + name);
}

double SpotThreshold(const CameraModel& model) {
    const double variance =
        double{model.read_noise} * model.read_noise + double{model.gain} * model.background;
    return model.background + 5.0 * std::sqrt(variance);
}

std::vector<float> CameraSensor::Image(const defs::AlignedFrame<float>& field) const {
    std::vector<float> image;
    image.reserve(model.width * model.height);
    for (std::size_t row = 0; row < model.height; ++row) {
        const auto begin = field.begin() + static_cast<std::ptrdiff_t>(row * model.Stride());
        image.insert(image.end(), begin, begin + static_cast<std::ptrdiff_t>(model.width));
    }
    return image;
}

CameraSensor MakeSensor(const CameraModel& model, std::uint64_t seed) {
    CameraSensor sensor;
    sensor.model = model;
    sensor.bias.resize(model.RawSize());
    sensor.flat.assign(model.RawSize(), 1.0F);
    sensor.sensitivity.assign(model.RawSize(), 0.0F);
    if (model.prescan > 0) sensor.position = LisaPositions();
    PortableRandom random(Scatter(seed) ^ model.RawSize());
    FillBias(sensor, random);
    FillFlat(sensor, random);
    ChooseBadPixels(sensor, random);
    return sensor;
}

}  // namespace vosk::rig
