#include "cameras/plainCleaning.hpp"

#include "cameras/frameRenderer.hpp"

#include <algorithm>
#include <cstddef>

namespace vosk::rig {
namespace {

// How far the rows of a group lie above the bias, as the columns that see no light tell.
double MeasureDrift(const CameraSensor& sensor, const std::vector<float>& image, std::size_t first_row) {
    const CameraModel& model = sensor.model;
    if (model.dark_columns == 0) return 0.0;
    double sum = 0.0;
    std::size_t count = 0;
    const std::size_t end = std::min(first_row + FrameRenderer::GROUP_ROWS, model.height);
    for (std::size_t row = first_row; row < end; ++row) {
        for (std::size_t column = 0; column < model.width; ++column) {
            if (column >= model.dark_columns && column < model.width - model.dark_columns) continue;
            sum += double{image[row * model.width + column]} - sensor.bias[row * model.Stride() + column];
            ++count;
        }
    }
    return sum / static_cast<double>(count);
}

void Repair(std::vector<float>& image, std::size_t width, const BadPixel& pixel) {
    double sum = 0.0;
    for (std::size_t y = pixel.y - 1; y <= pixel.y + 1; ++y) {
        for (std::size_t x = pixel.x - 1; x <= pixel.x + 1; ++x) sum += image[y * width + x];
    }
    float& value = image[pixel.y * width + pixel.x];
    value = static_cast<float>((sum - value) / 8.0);
}

std::vector<float> Descramble(const CameraSensor& sensor, std::span<const std::uint16_t> raw) {
    const CameraModel& model = sensor.model;
    std::vector<float> image;
    image.reserve(model.width * model.height);
    for (std::size_t row = 0; row < model.height; ++row) {
        for (std::size_t column = 0; column < model.width; ++column) {
            const std::size_t place = row * model.Stride() + column;
            image.push_back(raw[sensor.position.empty() ? place : sensor.position[place]]);
        }
    }
    return image;
}

}  // namespace

std::vector<float> CleanFrame(const CameraSensor& sensor, std::span<const std::uint16_t> raw) {
    const CameraModel& model = sensor.model;
    const std::vector<float> image = Descramble(sensor, raw);
    std::vector<float> cleaned(image.size());
    double drift = 0.0;
    for (std::size_t row = 0; row < model.height; ++row) {
        if (row % FrameRenderer::GROUP_ROWS == 0) drift = MeasureDrift(sensor, image, row);
        for (std::size_t column = 0; column < model.width; ++column) {
            const std::size_t place = row * model.Stride() + column;
            const std::size_t pixel = row * model.width + column;
            cleaned[pixel] =
                static_cast<float>((double{image[pixel]} - sensor.bias[place] - drift) / sensor.flat[place]);
        }
    }
    for (const BadPixel& pixel : sensor.bad_pixels) Repair(cleaned, model.width, pixel);
    return cleaned;
}

}  // namespace vosk::rig
