#include "cameras/showFrame.hpp"

#include "cameras/frameView.hpp"
#include "cameras/wfsGrid.hpp"
#include "portableRandom.hpp"

#include <fmt/format.h>
#include <vosk/common/fits.hpp>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace vosk::rig {
namespace {

constexpr std::size_t SCREEN = 1680;  // pixels that a picture without a chosen zoom is at most wide and high
constexpr int LARGEST_ZOOM = 32;
constexpr std::size_t LARGEST_PICTURE = 16384;

// Where spots are looked for, and where they should be.
struct Scene {
    std::vector<Box> boxes;
    std::vector<Spot> references;
};

Scene MakeScene(const CameraModel& model, const ShowFrameOptions& options) {
    Scene scene;
    if (model.dark_columns == 0) {
        // An imaging camera: one star in the middle.
        const std::size_t half = model.width > 1000 ? 32 : 20;
        const std::size_t x = model.width / 2;
        const std::size_t y = model.height / 2;
        scene.boxes.push_back({x - half, x + half, y - half, y + half});
        scene.references.push_back({static_cast<double>(x), static_cast<double>(y), model.spot_flux});
        return scene;
    }
    for (const Subaperture& sub : MakeWfsGrid(options.subapertures, options.seed).subapertures) {
        scene.boxes.push_back({sub.x_start, sub.x_stop, sub.y_start, sub.y_stop});
        scene.references.push_back({sub.ref_x, sub.ref_y, model.spot_flux});
    }
    return scene;
}

std::vector<Spot> MoveSpots(std::vector<Spot> spots, const ShowFrameOptions& options) {
    PortableRandom random(Scatter(options.seed) ^ Scatter(options.number));
    for (Spot& spot : spots) {
        spot.x += options.motion * random.Normal();
        spot.y += options.motion * random.Normal();
    }
    return spots;
}

std::vector<std::uint16_t> ReadRawFrame(const std::filesystem::path& file, const CameraModel& model) {
    return common::Fits::ReadImg<std::uint16_t>(common::Fits::FitsFile(file.string()),
                                                {{model.Stride(), model.height}});
}

Box ChooseRegion(const ShowFrameOptions& options, std::size_t width, std::size_t height) {
    if (!options.region) return {0, width, 0, height};
    const auto [x, y, columns, rows] = *options.region;
    if (columns == 0 || rows == 0 || x >= width || y >= height || columns > width - x || rows > height - y)
        throw std::invalid_argument(
            fmt::format("the region must lie in the {} x {} pixels of the frame", width, height));
    return {x, x + columns, y, y + rows};
}

int ChooseZoom(const ShowFrameOptions& options, const Box& region) {
    const std::size_t longest = std::max(region.x_stop - region.x_start, region.y_stop - region.y_start);
    const int zoom =
        options.zoom > 0 ? options.zoom : std::clamp(static_cast<int>(SCREEN / longest), 1, LARGEST_ZOOM);
    if (longest * static_cast<std::size_t>(zoom) > LARGEST_PICTURE)
        throw std::invalid_argument(
            fmt::format("the picture would be more than {} pixels wide or high", LARGEST_PICTURE));
    return zoom;
}

void PrintErrors(const std::vector<Spot>& truths, const std::vector<Spot>& founds) {
    double squares = 0.0;
    double flux = 0.0;
    for (std::size_t i = 0; i < founds.size(); ++i) {
        squares += std::pow(founds[i].x - truths[i].x, 2) + std::pow(founds[i].y - truths[i].y, 2);
        flux += founds[i].flux / truths[i].flux;
    }
    const auto count = static_cast<double>(founds.size());
    fmt::print(
        "{} spots: found {:.3f} pixels (rms, each axis) from where they are, with {:.1f} % of their flux\n",
        founds.size(), std::sqrt(squares / (2.0 * count)), 100.0 * flux / count);
}

}  // namespace

void ShowFrame(const ShowFrameOptions& options) {
    const auto sensor =
        std::make_shared<const CameraSensor>(MakeSensor(ModelNamed(options.camera), options.seed));
    const CameraModel& model = sensor->model;
    const Scene scene = MakeScene(model, options);
    const std::vector<Spot> truths = MoveSpots(scene.references, options);
    std::vector<std::uint16_t> raw(model.RawSize());
    if (options.frame.empty()) {
        FrameRenderer(sensor, options.seed).Render(options.number, truths, raw);
    } else {
        raw = ReadRawFrame(options.frame, model);
    }

    FrameView view;
    const bool is_raw = options.view == "raw";
    if (is_raw) {
        view.values.assign(raw.begin(), raw.end());
        view.width = model.Stride();
    } else {
        view.values = CleanFrame(*sensor, raw);
        view.width = model.width;
    }
    view.region = ChooseRegion(options, view.width, model.height);
    view.zoom = ChooseZoom(options, view.region);
    view.title =
        options.frame.empty()
            ? fmt::format("{} {}, frame {}, seed {}", model.name, options.view, options.number, options.seed)
            : fmt::format("{} {}, {}", model.name, options.view, options.frame.filename().string());
    // A scrambled frame has no regions.
    if (!is_raw || sensor->position.empty()) {
        view.outlines = scene.boxes;
        view.references = scene.references;
        const std::vector<float> cleaned = is_raw ? CleanFrame(*sensor, raw) : view.values;
        for (const Box& box : scene.boxes)
            view.founds.push_back(FindSpot(cleaned, model.width, box, SpotThreshold(model)));
        if (options.frame.empty()) view.truths = truths;
    }

    const Canvas canvas = DrawFrame(view);
    canvas.WritePng(options.out);
    fmt::print("{}: {} x {} pixels, zoom {}\n", options.out.string(), canvas.Width(), canvas.Height(),
               view.zoom);
    if (!view.truths.empty()) PrintErrors(view.truths, view.founds);
    if (!view.founds.empty() && view.zoom < MARKS_FROM_ZOOM)
        fmt::print("reference points and spots are marked from zoom {} on\n", MARKS_FROM_ZOOM);
}

}  // namespace vosk::rig
