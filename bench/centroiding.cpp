// Centroids of 1024 regions of a LISA frame: one call for all and one call a region, against the plain loop
// (for NBR, a full sort) and against streaming as many bytes.

#include "bench.hpp"

#include <fmt/format.h>

#include <vosk/defs/alignedFrame.hpp>
#include <vosk/image_processing/centroiding.hpp>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace vosk::bench {

namespace {

using image_processing::Centroiding;
using image_processing::CentroidingCOG;
using image_processing::CentroidingNBR;
using image_processing::CentroidingTSH;
using image_processing::Moments;
using image_processing::Roi;

constexpr std::uint16_t WIDTH = 840;
constexpr std::uint16_t HEIGHT = 816;
constexpr std::size_t SIDE = 32;  // regions by regions, side by side
constexpr std::size_t LEFT = 36;  // of all regions
constexpr std::size_t TOP = 24;
constexpr double SATURATION = 10.0;
constexpr float THRESHOLD = 12.0F;
constexpr std::size_t BRIGHTEST = 20;

std::vector<Roi> Regions(std::uint16_t size) {
    std::vector<Roi> rois;
    for (std::size_t i = 0; i < SIDE * SIDE; ++i) {
        const auto left = static_cast<std::uint16_t>(LEFT + i % SIDE * size);
        const auto top = static_cast<std::uint16_t>(TOP + i / SIDE * size);
        rois.emplace_back(left, static_cast<std::uint16_t>(left + size), top,
                          static_cast<std::uint16_t>(top + size), WIDTH, HEIGHT, left + size / 2.0,
                          top + size / 2.0);
    }
    return rois;
}

// A spot in the middle of each region on noise around zero, as a cleaned frame has.
defs::AlignedFrame<float> CleanedFrame(std::size_t size) {
    defs::AlignedFrame<float> frame(std::size_t{WIDTH} * HEIGHT);
    std::mt19937 engine{1};
    std::normal_distribution<float> noise{0.0F, 4.0F};
    const auto from_middle = [&](std::size_t at) {
        return static_cast<float>(at % size) - static_cast<float>(size - 1) / 2.0F;
    };
    for (std::size_t i = 0; i < frame.size(); ++i) {
        const float x = from_middle(i % WIDTH + WIDTH * size - LEFT);
        const float y = from_middle(i / WIDTH + HEIGHT * size - TOP);
        frame[i] = noise(engine) + 800.0F * std::exp(-0.2F * (x * x + y * y));
    }
    return frame;
}

using Frame = std::span<const float>;
using OneRegion = std::function<void(Frame, const Roi&, defs::Slope&)>;

// What the sums cost that are taken one pixel after another.
template <class Keep>
void PlainMoments(Frame frame, const Roi& roi, defs::Slope& slope, Keep keep) {
    Moments moments;
    for (std::size_t dy = 0; dy < roi.height; ++dy) {
        const float* row = frame.data() + (roi.y_start + dy) * WIDTH + roi.x_start;
        for (std::size_t dx = 0; dx < roi.width; ++dx) {
            const double value = row[dx];
            if (!keep(row[dx])) continue;
            moments.sum += value;
            moments.x += value * static_cast<double>(dx);
            moments.y += value * static_cast<double>(dy);
        }
    }
    slope = {moments.sum, roi.x_start + moments.x / moments.sum - roi.ref_x,
             roi.y_start + moments.y / moments.sum - roi.ref_y};
}

void PlainCog(Frame frame, const Roi& roi, defs::Slope& slope) {
    PlainMoments(frame, roi, slope, [](float) { return true; });
}

void PlainTsh(Frame frame, const Roi& roi, defs::Slope& slope) {
    PlainMoments(frame, roi, slope, [](float value) { return value >= THRESHOLD; });
}

// All pixels with their offsets, sorted; the sums of the brightest are left out, as they cost next to
// nothing.
void FullSort(Frame frame, const Roi& roi, defs::Slope& slope) {
    struct Pixel {
        double value, dx, dy;
    };
    static std::vector<Pixel> pixels;
    pixels.resize(roi.size);
    auto next = pixels.rbegin();
    for (std::size_t dy = 0; dy < roi.height; ++dy) {
        const float* row = frame.data() + (roi.y_start + dy) * WIDTH + roi.x_start;
        for (std::size_t dx = 0; dx < roi.width; ++dx) {
            *next++ = {row[dx], static_cast<double>(dx), static_cast<double>(dy)};
        }
    }
    std::sort(pixels.begin(), pixels.end(),
              [](const Pixel& left, const Pixel& right) { return left.value > right.value; });
    slope = {pixels[0].value, pixels[0].dx, pixels[0].dy};
}

struct Method {
    std::string name;
    Centroiding<float>& ours;
    std::string reference_name;
    OneRegion reference;
    std::size_t repeats;
};

std::vector<Row> BenchMethod(const Method& method, std::uint16_t size) {
    const auto frame = CleanedFrame(size);
    const auto rois = Regions(size);
    std::vector<defs::Slope> slopes(rois.size());
    const double pixels = static_cast<double>(rois.size() * rois[0].size);
    volatile float sink = 0.0F;

    const std::vector<std::function<void()>> forms{
        [&] { method.ours.ComputeMany(frame, rois, slopes); },
        [&] {
            for (std::size_t i = 0; i < rois.size(); ++i) {
                method.ours.Compute(frame, rois[i]);
                slopes[i] = {method.ours.flux, method.ours.x, method.ours.y};
            }
        },
        [&] {
            for (std::size_t i = 0; i < rois.size(); ++i) method.reference(frame, rois[i], slopes[i]);
        },
        [&] { sink = StreamFloats(frame.data(), static_cast<std::size_t>(pixels)); }};
    std::vector<std::vector<double>> times(forms.size());
    for (std::size_t i = 0; i < method.repeats; ++i) {
        for (std::size_t form = 0; form < forms.size(); ++form) {
            times[form].push_back(TimeUs(forms[form]));
        }
    }
    std::vector<double> ns;
    ns.reserve(times.size());
    for (auto& samples : times) ns.push_back(1'000.0 * Percentile(samples, 0.1) / pixels);

    const auto what = fmt::format("{}, 1024 ROIs of {} x {}", method.name, size, size);
    return {{what + ", in one call", method.reference_name, "ns/pixel", ns[0], ns[2]},
            {what + ", one by one", method.reference_name, "ns/pixel", ns[1], ns[2]},
            {what + ", in one call", "streaming as many bytes", "ns/pixel", ns[0], ns[3]}};
}

}  // namespace

std::vector<Row> BenchCentroiding() {
    CentroidingCOG<float> cog{WIDTH, HEIGHT, SATURATION};
    CentroidingTSH<float> tsh{WIDTH, HEIGHT, SATURATION, THRESHOLD};
    CentroidingNBR<float> nbr{WIDTH, HEIGHT, SATURATION};
    nbr.SetNBrightest(BRIGHTEST, true);
    const std::vector<Method> methods{{"COG", cog, "plain loop", PlainCog, 300},
                                      {"TSH", tsh, "plain loop", PlainTsh, 300},
                                      {"NBR, n = 20", nbr, "full std::sort", FullSort, 15}};
    std::vector<Row> rows;
    for (const Method& method : methods) {
        for (const std::uint16_t size : {std::uint16_t{24}, std::uint16_t{8}}) {
            for (Row& row : BenchMethod(method, size)) rows.push_back(std::move(row));
        }
    }
    return rows;
}

}  // namespace vosk::bench
