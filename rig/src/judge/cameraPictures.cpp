#include "judge/cameraPictures.hpp"

#include "cameras/plainCleaning.hpp"

#include <fmt/format.h>
#include <png.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <stdexcept>

namespace vosk::rig {
namespace {

std::string Base64(std::span<const std::uint8_t> bytes) {
    constexpr const char* DIGITS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t group = 0;
        for (std::size_t j = 0; j < 3; ++j) group = group << 8U | (j < count ? bytes[i + j] : 0U);
        for (std::size_t j = 0; j < 4; ++j) text += j <= count ? DIGITS[group >> (18 - 6 * j) & 63U] : '=';
    }
    return text;
}

std::string GreyPng(std::span<const std::uint8_t> pixels, std::size_t width) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(width);
    image.height = static_cast<png_uint_32>(pixels.size() / width);
    image.format = PNG_FORMAT_GRAY;
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
    std::vector<std::uint8_t> bytes(size);
    if (png_image_write_to_memory(&image, bytes.data(), &size, 0, pixels.data(), 0, nullptr) == 0)
        throw std::runtime_error(std::string("a picture can't be made: ") + image.message);
    return Base64(std::span(bytes).first(size));
}

// A part of an image, its far edges excluded.
struct Part {
    std::size_t x_start;
    std::size_t x_stop;
    std::size_t y_start;
    std::size_t y_stop;

    std::size_t Width() const { return x_stop - x_start; }
    std::size_t Height() const { return y_stop - y_start; }
    bool Overlaps(const SpotRegion& region) const {
        return region.x_start < x_stop && x_start < region.x_stop && region.y_start < y_stop &&
               y_start < region.y_stop;
    }
};

Part PartOf(const CameraScene& scene, const std::vector<SpotRegion>& regions) {
    static constexpr std::size_t MARGIN = 8;
    const CameraModel& model = scene.Sensor()->model;
    if (scene.IsWfs()) {
        constexpr std::size_t HALF = 3 * WfsGrid::PITCH;
        return {model.width / 2 - HALF, model.width / 2 + HALF, model.height / 2 - HALF,
                model.height / 2 + HALF};
    }
    const SpotRegion& region = regions.front();
    const auto before = [](std::size_t place) { return place - std::min(place, MARGIN); };
    return {before(region.x_start), std::min(region.x_stop + MARGIN, model.width), before(region.y_start),
            std::min(region.y_stop + MARGIN, model.height)};
}

// Dark sky, and a root that lifts what is faint.
std::string Shade(const std::vector<float>& image, std::size_t width, const Part& part) {
    std::vector<float> values;
    for (std::size_t y = part.y_start; y < part.y_stop; ++y)
        for (std::size_t x = part.x_start; x < part.x_stop; ++x) values.push_back(image[y * width + x]);
    const float white = std::max(*std::max_element(values.begin(), values.end()), 1.0F);
    std::vector<std::uint8_t> pixels;
    pixels.reserve(values.size());
    for (const float value : values)
        pixels.push_back(
            static_cast<std::uint8_t>(255.0F * std::sqrt(std::clamp(value / white, 0.0F, 1.0F))));
    return GreyPng(pixels, part.Width());
}

// SVG whose units are the pixels of the image; pixel c reaches from c - 0.5 to c + 0.5.
class Drawing {
public:
    Drawing(double x, double y, double width, double height) {
        Write("<svg viewBox=\"{} {} {} {}\" style=\"max-width:640px;display:block\" fill=\"none\">\n",
              x - 0.5, y - 0.5, width, height);
    }

    void Image(const Part& part, const std::string& png) {
        Write(
            "<image x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" style=\"image-rendering:pixelated\" "
            "href=\"data:image/png;base64,{}\"/>\n",
            static_cast<double>(part.x_start) - 0.5, static_cast<double>(part.y_start) - 0.5, part.Width(),
            part.Height(), png);
    }
    void Outline(const SpotRegion& region) {
        Write(
            "<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" stroke=\"#2f6fb5\" stroke-width=\"0.2\"/>\n",
            static_cast<double>(region.x_start) - 0.5, static_cast<double>(region.y_start) - 0.5,
            region.x_stop - region.x_start, region.y_stop - region.y_start);
    }
    void Circle(double x, double y) {
        Write("<circle cx=\"{:.3f}\" cy=\"{:.3f}\" r=\"1.6\" stroke=\"#46e664\" stroke-width=\"0.25\"/>\n", x,
              y);
    }
    void Cross(double x, double y) {
        Write(
            "<path d=\"M{0:.3f} {2:.3f}L{1:.3f} {3:.3f}M{0:.3f} {3:.3f}L{1:.3f} {2:.3f}\" stroke=\"#ff506e\" "
            "stroke-width=\"0.25\"/>\n",
            x - 1.0, x + 1.0, y - 1.0, y + 1.0);
    }
    void Arrow(double x, double y, double to_x, double to_y, const char* color, double width) {
        constexpr double HEAD = 5.0;
        const double angle = std::atan2(to_y - y, to_x - x);
        const auto end = [&](double turn) {
            return fmt::format("{:.1f} {:.1f}", to_x - HEAD * std::cos(angle + turn),
                               to_y - HEAD * std::sin(angle + turn));
        };
        Write(
            "<path d=\"M{:.1f} {:.1f}L{:.1f} {:.1f}M{}L{:.1f} {:.1f}L{}\" stroke=\"{}\" "
            "stroke-width=\"{}\"/>\n",
            x, y, to_x, to_y, end(0.5), to_x, to_y, end(-0.5), color, width);
    }

    std::string End(const std::string& caption) {
        return fmt::format("<h2>{}</h2>\n{}</svg>\n", caption, m_svg);
    }

private:
    template <class... Args>
    void Write(fmt::format_string<Args...> format, Args&&... args) {
        fmt::format_to(std::back_inserter(m_svg), format, std::forward<Args>(args)...);
    }

    std::string m_svg;
};

}  // namespace

std::string DrawFrame(const CameraScene& scene, std::uint64_t seed, const FrameRecord& frame,
                      std::span<const defs::Slope> slopes, const std::vector<SpotRegion>& regions) {
    const CameraSensor& sensor = *scene.Sensor();
    std::vector<Spot> spots;
    scene.SpotsAt(frame.view.light, spots);
    std::vector<std::uint16_t> raw(sensor.model.RawSize());
    FrameRenderer(scene.Sensor(), seed).Render(frame.view.noise, spots, raw);
    const Part part = PartOf(scene, regions);
    Drawing drawing(static_cast<double>(part.x_start), static_cast<double>(part.y_start),
                    static_cast<double>(part.Width()), static_cast<double>(part.Height()));
    drawing.Image(part, Shade(CleanFrame(sensor, raw), sensor.model.width, part));
    for (std::size_t i = 0; i < regions.size() && i < slopes.size(); ++i) {
        if (!part.Overlaps(regions[i])) continue;
        drawing.Outline(regions[i]);
        drawing.Circle(spots[i].x, spots[i].y);
        drawing.Cross(regions[i].ref_x + slopes[i].x, regions[i].ref_y + slopes[i].y);
    }
    return drawing.End(fmt::format("{}: frame {}, ROIs blue, true spots green, those that the host found red",
                                   vosk::to_string(scene.Settings().camera), frame.number));
}

std::string DrawSlopes(const CameraScene& scene, const FrameRecord& frame,
                       std::span<const defs::Slope> slopes) {
    constexpr double LONGER = 12.0;
    constexpr double MARGIN = WfsGrid::PITCH;
    const std::vector<SpotRegion>& regions = scene.Regions();
    const CameraModel& model = scene.Sensor()->model;
    constexpr double EXTENT = WfsGrid::ACROSS * WfsGrid::PITCH + 2.0 * MARGIN;
    Drawing drawing((static_cast<double>(model.width) - EXTENT) / 2.0,
                    (static_cast<double>(model.height) - EXTENT) / 2.0, EXTENT, EXTENT);
    std::vector<Spot> spots;
    scene.SpotsAt(frame.view.light, spots);
    for (std::size_t i = 0; i < regions.size() && i < slopes.size(); ++i) {
        const double x = regions[i].ref_x;
        const double y = regions[i].ref_y;
        drawing.Arrow(x, y, x + LONGER * (spots[i].x - x), y + LONGER * (spots[i].y - y), "#46e664", 3.0);
        drawing.Arrow(x, y, x + LONGER * slopes[i].x, y + LONGER * slopes[i].y, "#cf222e", 1.0);
    }
    return drawing.End(fmt::format("{}: slopes of frame {}, {:g} times as long; true green, found red",
                                   vosk::to_string(scene.Settings().camera), frame.number, LONGER));
}

}  // namespace vosk::rig
