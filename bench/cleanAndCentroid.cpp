// What a worker of a LISA camera does with its regions, cleaning and centroids together: a region after the
// other, and in chunks whose centroids are taken in one call while their pixels are still in the cache. Both
// against the plain loops and against streaming the same bytes.

#include "bench.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <vosk/common/fits.hpp>
#include <vosk/image_processing/centroiding.hpp>
#include <vosk/image_processing/noiseRemoval.hpp>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <random>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace vosk::bench {

namespace {

using defs::AlignedFrame;
using namespace image_processing;
using Geometry = LisaGeometry;

constexpr std::size_t WIDTH = Geometry::WIDTH;
constexpr std::size_t HEIGHT = Geometry::HEIGHT;
constexpr std::size_t RAW_WIDTH = Geometry::SCRAMBLED_WIDTH;
constexpr std::size_t RAW_LEFT = 60;  // the image's first column in the raw frame
constexpr std::size_t SIDE = 32;      // regions by regions
constexpr std::size_t SIZE = 24;
constexpr std::size_t GROUP_ROWS = 4;
constexpr std::size_t CHUNK = 16;
constexpr std::size_t REPEATS = 200;

struct Calibration {
    AlignedFrame<float> bias = AlignedFrame<float>(WIDTH * HEIGHT);
    AlignedFrame<float> flat = AlignedFrame<float>(WIDTH * HEIGHT);
    AlignedFrame<std::uint32_t> table = AlignedFrame<std::uint32_t>(WIDTH * HEIGHT);
    AlignedFrame<std::uint16_t> raw = AlignedFrame<std::uint16_t>(RAW_WIDTH * Geometry::SCRAMBLED_HEIGHT);
};

// Rows that stand in the raw frame as they are.
Calibration MakeCalibration() {
    Calibration made;
    std::mt19937 engine{1};
    std::uniform_real_distribution<float> bias{90.0F, 110.0F};
    std::uniform_real_distribution<float> flat{0.8F, 1.2F};
    std::uniform_int_distribution<unsigned> raw{100, 4000};
    for (std::size_t i = 0; i < made.bias.size(); ++i) {
        made.bias[i] = bias(engine);
        made.flat[i] = flat(engine);
        made.table[i] = static_cast<std::uint32_t>(i / WIDTH * RAW_WIDTH + RAW_LEFT + i % WIDTH);
    }
    for (std::uint16_t& count : made.raw) count = static_cast<std::uint16_t>(raw(engine));
    return made;
}

std::vector<Roi> Regions() {
    std::vector<Roi> rois;
    for (std::size_t i = 0; i < SIDE * SIDE; ++i) {
        const auto left = static_cast<std::uint16_t>(36 + i % SIDE * SIZE);
        const auto top = static_cast<std::uint16_t>(24 + i / SIDE * SIZE);
        rois.emplace_back(left, static_cast<std::uint16_t>(left + SIZE), top,
                          static_cast<std::uint16_t>(top + SIZE), WIDTH, HEIGHT, left + 12.0, top + 12.0);
    }
    return rois;
}

// The worker's cycle in plain loops.
class PlainWorker {
public:
    explicit PlainWorker(const Calibration& calibration) : m_calibration{calibration} {}

    void Run(std::span<const Roi> rois, std::span<defs::Slope> slopes) {
        for (std::size_t group = 0; group < m_biases.size(); ++group) m_biases[group] = Bias(group);
        for (std::size_t i = 0; i < rois.size(); ++i) {
            Clean(rois[i]);
            slopes[i] = Centroid(rois[i]);
        }
    }

private:
    double Bias(std::size_t group) const {
        double sum = 0.0;
        for (std::size_t row = group * GROUP_ROWS; row < (group + 1) * GROUP_ROWS; ++row) {
            for (const std::size_t offset : {0U, 820U}) {
                for (std::size_t i = row * WIDTH + offset; i < row * WIDTH + offset + 20; ++i) {
                    sum += m_calibration.raw[m_calibration.table[i]];
                    sum -= static_cast<double>(m_calibration.bias[i]);
                }
            }
        }
        return sum / 160.0;
    }

    void Clean(const Roi& roi) {
        for (std::size_t y = roi.y_start; y < roi.y_stop; ++y) {
            for (std::size_t i = y * WIDTH + roi.x_start; i < y * WIDTH + roi.x_stop; ++i) {
                const double raw = m_calibration.raw[m_calibration.table[i]];
                m_frame[i] = static_cast<float>(
                    (raw - static_cast<double>(m_calibration.bias[i]) - m_biases[y / GROUP_ROWS]) /
                    static_cast<double>(m_calibration.flat[i]));
            }
        }
    }

    defs::Slope Centroid(const Roi& roi) const {
        Moments moments;
        for (std::size_t dy = 0; dy < roi.height; ++dy) {
            for (std::size_t dx = 0; dx < roi.width; ++dx) {
                const double value = m_frame[(roi.y_start + dy) * WIDTH + roi.x_start + dx];
                moments.sum += value;
                moments.x += value * static_cast<double>(dx);
                moments.y += value * static_cast<double>(dy);
            }
        }
        return {moments.sum, roi.x_start + moments.x / moments.sum - roi.ref_x,
                roi.y_start + moments.y / moments.sum - roi.ref_y};
    }

    const Calibration& m_calibration;
    AlignedFrame<float> m_frame = AlignedFrame<float>(WIDTH * HEIGHT);
    std::array<double, HEIGHT / GROUP_ROWS> m_biases{};
};

}  // namespace

std::vector<Row> BenchCleanAndCentroid() {
    const Calibration calibration = MakeCalibration();
    const std::string file =
        (std::filesystem::temp_directory_path() / fmt::format("vosk-bench-{}.fits", ::getpid())).string();
    common::Fits::WriteImg<std::uint32_t>(common::Fits::FitsFileWrite(file, true), calibration.table,
                                          {calibration.table.size()});
    LisaNoiseRemoval removal{calibration.bias, calibration.flat, file};
    std::filesystem::remove(file);
    CentroidingCOG<float> cog{WIDTH, HEIGHT, 10.0};
    PlainWorker plain{calibration};
    const auto rois = Regions();
    std::vector<defs::Slope> slopes(rois.size());
    volatile float sink = 0.0F;

    const auto pixels = rois.size() * rois[0].size;
    const auto stream = [&](const auto& frame) {
        sink = StreamFloats(reinterpret_cast<const float*>(frame.data()),
                            pixels * sizeof(frame[0]) / sizeof(float));
    };
    const std::vector<std::function<void()>> forms{
        [&] {
            removal.InvalidateCache();
            for (std::size_t i = 0; i < rois.size(); ++i) {
                removal.RemoveNoise(calibration.raw, {}, rois[i]);
                cog.Compute(removal.GetFrame(), rois[i]);
                slopes[i] = {cog.flux, cog.x, cog.y};
            }
        },
        [&] {
            removal.InvalidateCache();
            for (std::size_t start = 0; start < rois.size(); start += CHUNK) {
                const auto chunk = std::span{rois}.subspan(start, CHUNK);
                for (const Roi& roi : chunk) removal.RemoveNoise(calibration.raw, {}, roi);
                cog.ComputeMany(removal.GetFrame(), chunk, std::span{slopes}.subspan(start, CHUNK));
            }
        },
        [&] { plain.Run(rois, slopes); },
        [&] {
            stream(calibration.raw);
            stream(calibration.bias);
            stream(calibration.flat);
            stream(removal.GetFrame());
        }};
    std::vector<std::vector<double>> times(forms.size());
    for (std::size_t i = 0; i < REPEATS; ++i) {
        for (std::size_t form = 0; form < forms.size(); ++form) {
            times[form].push_back(TimeUs(forms[form]));
        }
    }
    std::vector<double> ns;
    ns.reserve(times.size());
    for (auto& samples : times)
        ns.push_back(1'000.0 * Percentile(samples, 0.1) / static_cast<double>(pixels));

    const std::string one = "clean and COG, 1024 ROIs of 24 x 24, one by one";
    const auto many = fmt::format("clean and COG, 1024 ROIs of 24 x 24, {} at a time", CHUNK);
    return {{one, "plain loops", "ns/pixel", ns[0], ns[2]},
            {many, "plain loops", "ns/pixel", ns[1], ns[2]},
            {many, "reading the same bytes", "ns/pixel", ns[1], ns[3]}};
}

}  // namespace vosk::bench
