#include "frames.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <vosk/common/fits.hpp>
#include <vosk/reference/centroids.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <numeric>
#include <random>
#include <utility>

// A stream is to be as fast as the machine can: compiled for its vectors, like what it is compared with.
#if defined(__x86_64__)
#define VOSK_WIDEST_VECTORS __attribute__((target_clones("arch=skylake-avx512", "avx2", "default")))
#else
#define VOSK_WIDEST_VECTORS
#endif

namespace vosk::bench {

using namespace image_processing;
using defs::AlignedFrame;

namespace {

constexpr std::size_t WIDTH = Geometry::WIDTH;
constexpr std::size_t HEIGHT = Geometry::HEIGHT;
constexpr std::size_t RAW_WIDTH = Geometry::SCRAMBLED_WIDTH;
constexpr std::size_t LEFT = 36;  // of all regions
constexpr std::size_t TOP = 24;
constexpr std::size_t DARK_COLUMNS = 20;  // at each side
constexpr double SATURATION = 10.0;
constexpr float THRESHOLD = 12.0F;
constexpr std::size_t BRIGHTEST = 20;

}  // namespace

AlignedFrame<float> RandomFrame(std::uint32_t seed, std::size_t size, float low, float high) {
    std::mt19937 random{seed};
    std::uniform_real_distribution<float> value{low, high};
    AlignedFrame<float> frame(size);
    for (float& pixel : frame) pixel = value(random);
    return frame;
}

AlignedFrame<float> SpotFrame(std::size_t size) {
    AlignedFrame<float> frame(WIDTH * HEIGHT);
    std::mt19937 engine{1};
    std::normal_distribution<float> noise{0.0F, 4.0F};
    const auto from_middle = [&](std::size_t at) {
        return static_cast<float>(at % size) - static_cast<float>(size - 1) / 2.0F;
    };
    for (std::size_t i = 0; i < frame.size(); ++i) {
        const std::size_t column = i % WIDTH;
        if (column < DARK_COLUMNS || column >= WIDTH - DARK_COLUMNS) continue;
        const float x = from_middle(column + WIDTH * size - LEFT);
        const float y = from_middle(i / WIDTH + HEIGHT * size - TOP);
        frame[i] = noise(engine) + 800.0F * std::exp(-0.2F * (x * x + y * y));
    }
    return frame;
}

Readout NeighbourReadout() {
    return {"neighbours",
            [](std::size_t i) { return static_cast<std::uint32_t>(i / WIDTH * RAW_WIDTH + 60 + i % WIDTH); },
            false};
}

Readout TapReadout() {
    const auto position = [](std::size_t i) {
        constexpr std::size_t TAPS = 4;  // of a half
        constexpr std::size_t COLUMNS = WIDTH / TAPS;
        constexpr std::size_t STEPS = RAW_WIDTH / TAPS;
        const std::size_t row = i / WIDTH;
        const std::size_t tap = i % WIDTH / COLUMNS;
        const bool is_upper = row >= HEIGHT / 2;
        const std::size_t line = is_upper ? HEIGHT - 1 - row : row;
        const std::size_t column = tap % 2 == 0 ? i % COLUMNS : COLUMNS - 1 - i % COLUMNS;
        const std::size_t step = line * STEPS + (STEPS - COLUMNS) + column;
        return static_cast<std::uint32_t>(step * 2 * TAPS + tap + (is_upper ? TAPS : 0));
    };
    return {"taps by turns", position, false};
}

Readout RandomReadout() {
    std::vector<std::uint32_t> positions(RAW_WIDTH * Geometry::SCRAMBLED_HEIGHT);
    std::iota(positions.begin(), positions.end(), 0U);
    std::shuffle(positions.begin(), positions.end(), std::mt19937{3});
    return {"random", [positions](std::size_t i) { return positions[i]; }, true};
}

LisaFrame::LisaFrame(const Readout& readout)
    : name{readout.name},
      is_table_read{readout.is_table_read},
      bias{RandomFrame(1, WIDTH * HEIGHT, 90.0F, 110.0F)},
      flat{RandomFrame(2, WIDTH * HEIGHT, 0.8F, 1.2F)},
      table(WIDTH * HEIGHT),
      raw(RAW_WIDTH * Geometry::SCRAMBLED_HEIGHT) {
    constexpr float DRIFT = 500.0F;
    const auto spots = SpotFrame(24);
    for (std::size_t i = 0; i < table.size(); ++i) {
        table[i] = readout.position(i);
        raw[table[i]] = static_cast<std::uint16_t>(std::lround(DRIFT + bias[i] + flat[i] * spots[i]));
    }
}

std::unique_ptr<LisaNoiseRemoval> LisaFrame::MakeRemoval() const {
    const std::string file =
        (std::filesystem::temp_directory_path() / fmt::format("vosk-bench-{}.fits", ::getpid())).string();
    common::Fits::WriteImg<std::uint32_t>(common::Fits::FitsFileWrite(file, true), table, {table.size()});
    auto removal = std::make_unique<LisaNoiseRemoval>(bias, flat, file);
    std::filesystem::remove(file);
    return removal;
}

CleaningStream LisaFrame::Stream(AlignedFrame<std::uint32_t>& moved) const {
    return {raw.data(), RAW_WIDTH,   bias.data(), flat.data(), is_table_read ? table.data() : nullptr,
            WIDTH,      moved.data()};
}

Roi WholeFrame(std::size_t width, std::size_t height) {
    const auto x = static_cast<std::uint16_t>(width);
    const auto y = static_cast<std::uint16_t>(height);
    return {0, x, 0, y, x, y, 0.0, 0.0};
}

std::vector<Roi> Regions(std::uint16_t size, std::size_t columns) {
    std::vector<Roi> rois;
    for (std::size_t i = 0; i < columns * columns; ++i) {
        const auto left = static_cast<std::uint16_t>(LEFT + i % columns * size);
        const auto top = static_cast<std::uint16_t>(TOP + i / columns * size);
        rois.emplace_back(left, static_cast<std::uint16_t>(left + size), top,
                          static_cast<std::uint16_t>(top + size), WIDTH, HEIGHT, left + size / 2.0,
                          top + size / 2.0);
    }
    return rois;
}

std::size_t PixelsOf(std::span<const Roi> rois) {
    return std::accumulate(rois.begin(), rois.end(), std::size_t{0},
                           [](std::size_t sum, const Roi& roi) { return sum + roi.size; });
}

namespace {

defs::Slope PlainCog(std::span<const float> frame, const Roi& roi) {
    return reference::Gravity(frame, roi, SATURATION, [](float) { return true; });
}

defs::Slope PlainTsh(std::span<const float> frame, const Roi& roi) {
    return reference::Gravity(frame, roi, SATURATION, [](float value) { return value >= THRESHOLD; });
}

defs::Slope PlainNbr(std::span<const float> frame, const Roi& roi) {
    return reference::Brightest(frame, roi, SATURATION, BRIGHTEST, true);
}

}  // namespace

std::vector<Estimator> Estimators() {
    auto brightest = std::make_unique<CentroidingNBR<float>>(WIDTH, HEIGHT, SATURATION);
    brightest->SetNBrightest(BRIGHTEST, true);
    std::vector<Estimator> all;
    all.push_back({"COG", "plain loop", std::make_unique<CentroidingCOG<float>>(WIDTH, HEIGHT, SATURATION),
                   PlainCog, 300});
    all.push_back({"TSH", "plain loop",
                   std::make_unique<CentroidingTSH<float>>(WIDTH, HEIGHT, SATURATION, THRESHOLD), PlainTsh,
                   300});
    all.push_back({fmt::format("NBR, n = {}", BRIGHTEST), "full sort", std::move(brightest), PlainNbr, 15});
    return all;
}

namespace {

// Added up as integers, so that the compiler may take them in any order.
using Bits __attribute__((may_alias)) = std::uint32_t;
// As many as the shortest row of a region: sums that are kept apart need no adding up at the end of a row.
constexpr std::size_t LANES = 8;
using BitLanes __attribute__((may_alias, aligned(4), vector_size(LANES * 4))) = std::uint32_t;

}  // namespace

VOSK_WIDEST_VECTORS
void StreamCleaning(const CleaningStream& stream, std::span<const Roi> rois) {
    for (const Roi& roi : rois) {
        for (std::size_t y = roi.y_start; y < roi.y_stop; ++y) {
            const std::size_t first = y * stream.stride + roi.x_start;
            const std::uint16_t* __restrict raw = stream.raw + y * stream.raw_stride + roi.x_start;
            const Bits* __restrict bias = reinterpret_cast<const Bits*>(stream.bias + first);
            const Bits* __restrict flat = reinterpret_cast<const Bits*>(stream.flat + first);
            std::uint32_t* __restrict cleaned = stream.cleaned + first;
            const std::size_t width = roi.width;
            if (stream.table == nullptr) {
                for (std::size_t x = 0; x < width; ++x) cleaned[x] = raw[x] + bias[x] + flat[x];
                continue;
            }
            const std::uint32_t* __restrict table = stream.table + first;
            for (std::size_t x = 0; x < width; ++x) cleaned[x] = raw[x] + bias[x] + flat[x] + table[x];
        }
    }
}

VOSK_WIDEST_VECTORS
std::uint32_t StreamPixels(const float* pixels, std::size_t stride, std::span<const Roi> rois) {
    BitLanes sums{};
    for (const Roi& roi : rois) {
        for (std::size_t y = roi.y_start; y < roi.y_stop; ++y) {
            const float* row = pixels + y * stride + roi.x_start;
            for (std::size_t x = 0; x < roi.width; x += LANES) {
                sums += *reinterpret_cast<const BitLanes*>(row + x);
            }
        }
    }
    std::uint32_t sum = 0;
    for (std::size_t lane = 0; lane < LANES; ++lane) sum += sums[lane];
    return sum;
}

std::vector<double> NsAPixel(const std::vector<std::function<void()>>& works, std::size_t repeats,
                             std::size_t pixels) {
    std::vector<std::vector<double>> times(works.size());
    for (std::size_t i = 0; i < repeats; ++i) {
        for (std::size_t work = 0; work < works.size(); ++work) {
            works[work]();  // brings its data back into the caches
            times[work].push_back(TimeUs(works[work]));
        }
    }
    std::vector<double> ns;
    ns.reserve(times.size());
    for (auto& samples : times) {
        ns.push_back(1'000.0 * Percentile(samples, 0.1) / static_cast<double>(pixels));
    }
    return ns;
}

}  // namespace vosk::bench
