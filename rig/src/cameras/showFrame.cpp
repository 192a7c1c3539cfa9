#include "cameras/showFrame.hpp"

#include "cameras/frameRenderer.hpp"
#include "cameras/plainCleaning.hpp"
#include "cameras/wfsGrid.hpp"
#include "portableRandom.hpp"

#include <fmt/format.h>
#include <png.h>
#include <vosk/common/fits.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>

namespace vosk::rig {
namespace {

constexpr double MOTION = 0.7;       // rms of the spots about their reference points, in pixels
constexpr std::size_t SCREEN = 900;  // small frames are enlarged up to this

// Where a spot is, and the ROI about it, its far edges excluded.
struct Region {
    std::size_t x_start;
    std::size_t x_stop;
    std::size_t y_start;
    std::size_t y_stop;
    Spot spot;
};

std::vector<Region> MakeRegions(const CameraModel& model, std::uint64_t seed) {
    std::vector<Region> regions;
    if (model.dark_columns == 0) {
        // An imaging camera: one star in the middle.
        const std::size_t x = model.width / 2;
        const std::size_t y = model.height / 2;
        const Spot star{static_cast<double>(x), static_cast<double>(y), model.spot_flux};
        regions.push_back({x - 20, x + 20, y - 20, y + 20, star});
    } else {
        for (const Subaperture& sub : MakeWfsGrid(WfsGrid::MOST, seed).subapertures)
            regions.push_back({sub.x_start, sub.x_stop, sub.y_start, sub.y_stop,
                               Spot{sub.ref_x, sub.ref_y, model.spot_flux}});
    }
    PortableRandom random(Scatter(seed));
    for (Region& region : regions) {
        region.spot.x += MOTION * random.Normal();
        region.spot.y += MOTION * random.Normal();
    }
    return regions;
}

using Rgb = std::array<std::uint8_t, 3>;
static_assert(sizeof(Rgb) == 3);  // as libpng wants its pixels

// The sky is dark, and the root lifts what is faint.
std::vector<Rgb> Shade(const std::vector<float>& values) {
    std::vector<float> sorted = values;
    std::sort(sorted.begin(), sorted.end());
    const double black = sorted[sorted.size() / 50];
    const double white = std::max<double>(sorted[sorted.size() - 1 - sorted.size() / 500], black + 1.0);
    std::vector<Rgb> pixels;
    for (const float value : values) {
        const double share = std::clamp((value - black) / (white - black), 0.0, 1.0);
        const auto level = static_cast<std::uint8_t>(255.0 * std::sqrt(share));
        pixels.push_back({level, level, level});
    }
    return pixels;
}

void Outline(std::vector<Rgb>& pixels, std::size_t width, const Region& region) {
    constexpr Rgb COLOR{40, 90, 150};
    for (std::size_t x = region.x_start; x < region.x_stop; ++x)
        pixels[region.y_start * width + x] = pixels[(region.y_stop - 1) * width + x] = COLOR;
    for (std::size_t y = region.y_start; y < region.y_stop; ++y)
        pixels[y * width + region.x_start] = pixels[y * width + region.x_stop - 1] = COLOR;
}

void WritePng(const std::filesystem::path& file, const std::vector<Rgb>& pixels, std::size_t width,
              std::size_t zoom) {
    const std::size_t height = pixels.size() / width;
    std::vector<Rgb> enlarged;
    for (std::size_t y = 0; y < height * zoom; ++y)
        for (std::size_t x = 0; x < width * zoom; ++x)
            enlarged.push_back(pixels[y / zoom * width + x / zoom]);
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(width * zoom);
    image.height = static_cast<png_uint_32>(height * zoom);
    image.format = PNG_FORMAT_RGB;
    if (png_image_write_to_file(&image, file.c_str(), 0, enlarged.data(), 0, nullptr) == 0)
        throw std::runtime_error(file.string() + " can't be written: " + image.message);
}

}  // namespace

void ShowFrame(const ShowFrameOptions& options) {
    const auto sensor =
        std::make_shared<const CameraSensor>(MakeSensor(ModelNamed(options.camera), options.seed));
    const CameraModel& model = sensor->model;
    const std::vector<Region> regions = MakeRegions(model, options.seed);
    std::vector<std::uint16_t> raw(model.RawSize());
    if (options.frame.empty()) {
        std::vector<Spot> spots;
        spots.reserve(regions.size());
        for (const Region& region : regions) spots.push_back(region.spot);
        FrameRenderer(sensor, options.seed).Render(0, spots, raw);
    } else {
        raw = common::Fits::ReadImg<std::uint16_t>(common::Fits::FitsFile(options.frame.string()),
                                                   {{model.Stride(), model.height}});
    }
    std::vector<Rgb> pixels = Shade(CleanFrame(*sensor, raw));
    for (const Region& region : regions) Outline(pixels, model.width, region);
    const std::size_t zoom = std::max<std::size_t>(SCREEN / model.width, 1);
    WritePng(options.out, pixels, model.width, zoom);
    fmt::print("{}: {} x {} pixels, {} ROIs\n", options.out.string(), model.width * zoom, model.height * zoom,
               regions.size());
}

}  // namespace vosk::rig
