// Cleaning raw frames: against the plain loop that defines the result, and against moving the same bytes
// without computing anything.

#include <vosk/common/fits.hpp>
#include <vosk/image_processing/noiseRemoval.hpp>

#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <numeric>
#include <random>

#include "bench.hpp"

namespace vosk::bench {
namespace {

using defs::AlignedFrame;
using namespace image_processing;
using Geometry = LisaGeometry;

constexpr int PASSES = 300;
constexpr std::size_t WIDTH = Geometry::WIDTH;
constexpr std::size_t GROUP_ROWS = 4;
constexpr std::uint16_t ROI_SIZE = 24;
constexpr std::size_t ROIS = 1024;

AlignedFrame<float> Calibration(std::size_t size, float low, float high) {
    std::mt19937 random{1};
    std::uniform_real_distribution<float> value{low, high};
    AlignedFrame<float> frame(size);
    for (float& pixel : frame) pixel = value(random);
    return frame;
}

AlignedFrame<std::uint16_t> Raw(std::size_t size) {
    std::mt19937 random{2};
    std::uniform_int_distribution<int> value{0, 65535};
    AlignedFrame<std::uint16_t> frame(size);
    for (std::uint16_t& pixel : frame) pixel = static_cast<std::uint16_t>(value(random));
    return frame;
}

// Each row of the image as it stands in the raw buffer, without the columns beside it.
AlignedFrame<std::uint32_t> NeighbourTable() {
    AlignedFrame<std::uint32_t> table(WIDTH * Geometry::HEIGHT);
    for (std::size_t i = 0; i < table.size(); ++i) {
        table[i] = static_cast<std::uint32_t>(i / WIDTH * Geometry::SCRAMBLED_WIDTH + i % WIDTH + 60);
    }
    return table;
}

// 8 taps that read side by side: their pixels take turns in the raw buffer.
AlignedFrame<std::uint32_t> InterleavedTable() {
    constexpr std::size_t TAPS = 8;
    AlignedFrame<std::uint32_t> table(WIDTH * Geometry::HEIGHT);
    for (std::size_t i = 0; i < table.size(); ++i) {
        const std::size_t tap = i % WIDTH / (WIDTH / TAPS);
        const std::size_t step = i % (WIDTH / TAPS);
        table[i] = static_cast<std::uint32_t>(i / WIDTH * Geometry::SCRAMBLED_WIDTH + step * TAPS + tap);
    }
    return table;
}

AlignedFrame<std::uint32_t> RandomTable() {
    std::vector<std::uint32_t> positions(Geometry::SCRAMBLED_WIDTH * Geometry::SCRAMBLED_HEIGHT);
    std::iota(positions.begin(), positions.end(), 0U);
    std::shuffle(positions.begin(), positions.end(), std::mt19937{3});
    return {positions.begin(), positions.begin() + WIDTH * Geometry::HEIGHT};
}

// 32 x 32 regions, spread over the image.
std::vector<Roi> SpreadRois() {
    constexpr std::size_t SIDE = 32;
    std::vector<Roi> rois;
    for (std::size_t k = 0; k < ROIS; ++k) {
        const auto x = static_cast<std::uint16_t>(20 + k % SIDE * (800 - ROI_SIZE) / (SIDE - 1));
        const auto y = static_cast<std::uint16_t>(k / SIDE * (Geometry::HEIGHT - ROI_SIZE) / (SIDE - 1));
        rois.emplace_back(x, static_cast<std::uint16_t>(x + ROI_SIZE), y,
                          static_cast<std::uint16_t>(y + ROI_SIZE), WIDTH, Geometry::HEIGHT, 0.0, 0.0);
    }
    return rois;
}

Roi WholeFrame(std::size_t width, std::size_t height) {
    const auto x = static_cast<std::uint16_t>(width);
    const auto y = static_cast<std::uint16_t>(height);
    return {0, x, 0, y, x, y, 0.0, 0.0};
}

// Ours and what it is compared with by turns, so that a noisy moment meets all: ns a pixel, undisturbed.
void Compare(const std::string& what, std::size_t pixels, const std::function<void()>& ours,
             const std::function<void()>& plain, const std::function<void()>& streaming,
             std::vector<Row>& rows) {
    const std::array works{&ours, &plain, &streaming};
    std::array<std::vector<double>, 3> times;
    const auto passes = std::max<std::size_t>(20, PASSES * Geometry::WIDTH * Geometry::HEIGHT / pixels / 3);
    for (std::size_t pass = 0; pass < passes; ++pass) {
        for (std::size_t i = 0; i < works.size(); ++i) {
            times[i].push_back(TimeUs(*works[i]) * 1e3 / static_cast<double>(pixels));
        }
    }
    const double own = Percentile(times[0], 0.1);
    rows.push_back({what, "the plain loop", "ns/pixel", own, Percentile(times[1], 0.1)});
    rows.push_back({what, "streaming the same bytes", "ns/pixel", own, Percentile(times[2], 0.1)});
}

// Moves the bytes that cleaning has to move: reads the counts, the calibration data and, where the table does
// not run in neighbours, the table; writes as many pixels. The sums only keep the reads alive.
class Stream {
public:
    Stream(const AlignedFrame<std::uint16_t>& raw, const AlignedFrame<float>& bias,
           const AlignedFrame<float>& flat)
        : m_raw{raw}, m_bias{bias}, m_flat{flat}, m_out(bias.size()) {}

    void Pass(std::size_t raw_first, std::size_t first, std::size_t count) {
        std::uint16_t sum = 0;
        for (std::size_t i = 0; i < count; ++i) sum = static_cast<std::uint16_t>(sum + m_raw[raw_first + i]);
        for (std::size_t i = first; i < first + count; ++i) m_out[i] = m_bias[i] + m_flat[i];
        m_sum = static_cast<std::uint16_t>(m_sum + sum);
    }

    void TablePass(const AlignedFrame<std::uint32_t>& table, std::size_t first, std::size_t count) {
        m_table_sum =
            std::accumulate(table.begin() + static_cast<std::ptrdiff_t>(first),
                            table.begin() + static_cast<std::ptrdiff_t>(first + count), m_table_sum);
    }

private:
    const AlignedFrame<std::uint16_t>& m_raw;
    const AlignedFrame<float>& m_bias;
    const AlignedFrame<float>& m_flat;
    AlignedFrame<float> m_out;
    volatile std::uint16_t m_sum{0};
    std::uint32_t m_table_sum{0};
};

double PlainBias(const AlignedFrame<std::uint16_t>& raw, const AlignedFrame<float>& bias,
                 const AlignedFrame<std::uint32_t>& table, std::size_t group) {
    double sum = 0.0;
    for (std::size_t row = group * GROUP_ROWS; row < (group + 1) * GROUP_ROWS; ++row) {
        for (const std::size_t offset : {0U, 820U}) {
            for (std::size_t i = row * WIDTH + offset; i < row * WIDTH + offset + 20; ++i) {
                sum += raw[table[i]];
                sum -= static_cast<double>(bias[i]);
            }
        }
    }
    return sum / 160.0;
}

void BenchLisa(const std::string& table_name, const AlignedFrame<std::uint32_t>& table,
               std::vector<Row>& rows) {
    const auto bias = Calibration(table.size(), 90.0F, 110.0F);
    const auto flat = Calibration(table.size(), 0.8F, 1.2F);
    const auto raw = Raw(Geometry::SCRAMBLED_WIDTH * Geometry::SCRAMBLED_HEIGHT);
    const std::string file =
        (std::filesystem::temp_directory_path() / fmt::format("vosk-bench-{}.fits", ::getpid())).string();
    common::Fits::WriteImg<std::uint32_t>(common::Fits::FitsFileWrite(file, true), table, {table.size()});
    LisaNoiseRemoval removal{bias, flat, file};
    std::filesystem::remove(file);

    AlignedFrame<float> out(table.size());
    std::array<double, Geometry::HEIGHT / GROUP_ROWS> biases{};
    const auto plain = [&](const std::vector<Roi>& rois) {
        for (std::size_t group = 0; group < biases.size(); ++group) {
            biases[group] = PlainBias(raw, bias, table, group);
        }
        for (const Roi& roi : rois) {
            for (std::size_t y = roi.y_start; y < roi.y_stop; ++y) {
                for (std::size_t i = y * WIDTH + roi.x_start; i < y * WIDTH + roi.x_stop; ++i) {
                    out[i] = static_cast<float>((static_cast<double>(raw[table[i]]) -
                                                 static_cast<double>(bias[i]) - biases[y / GROUP_ROWS]) /
                                                static_cast<double>(flat[i]));
                }
            }
        }
    };
    const auto ours = [&](const std::vector<Roi>& rois) {
        removal.InvalidateCache();
        for (const Roi& roi : rois) removal.RemoveNoise(raw, {}, roi);
    };
    Stream stream{raw, bias, flat};
    const bool by_entry = table_name != "neighbours";
    const auto streaming = [&](const std::vector<Roi>& rois) {
        for (const Roi& roi : rois) {
            for (std::size_t y = roi.y_start; y < roi.y_stop; ++y) {
                const std::size_t first = y * WIDTH + roi.x_start;
                stream.Pass(y * Geometry::SCRAMBLED_WIDTH + roi.x_start, first, roi.width);
                if (by_entry) stream.TablePass(table, first, roi.width);
            }
        }
    };
    const auto compare = [&](const std::string& what, const std::vector<Roi>& rois) {
        const std::size_t pixels =
            std::accumulate(rois.begin(), rois.end(), std::size_t{0},
                            [](std::size_t sum, const Roi& roi) { return sum + roi.size; });
        Compare(
            "clean LISA " + what + ", table " + table_name, pixels, [&] { ours(rois); }, [&] { plain(rois); },
            [&] { streaming(rois); }, rows);
    };
    compare("frame", {WholeFrame(Geometry::WIDTH, Geometry::HEIGHT)});
    compare("1024 ROIs of 24 x 24", SpreadRois());
}

template <class Removal>
void BenchInOrder(const std::string& what, std::vector<Row>& rows) {
    constexpr std::size_t SIZE = Removal::WIDTH * Removal::HEIGHT;
    const auto bias = Calibration(SIZE, 90.0F, 110.0F);
    const auto flat = Calibration(SIZE, 0.8F, 1.2F);
    const auto raw = Raw(SIZE);
    Removal removal{bias, flat};
    AlignedFrame<float> out(SIZE);
    Stream stream{raw, bias, flat};
    Compare(
        "clean " + what + " frame", SIZE, [&] { removal.RemoveNoise(raw, {}, {}); },
        [&] {
            for (std::size_t i = 0; i < SIZE; ++i) {
                out[i] = static_cast<float>((static_cast<double>(raw[i]) - static_cast<double>(bias[i])) /
                                            static_cast<double>(flat[i]));
            }
        },
        [&] {
            for (std::size_t y = 0; y < Removal::HEIGHT; ++y) {
                stream.Pass(y * Removal::WIDTH, y * Removal::WIDTH, Removal::WIDTH);
            }
        },
        rows);
}

}  // namespace

std::vector<Row> BenchFrameCleaning() {
    std::vector<Row> rows;
    BenchLisa("neighbours", NeighbourTable(), rows);
    BenchLisa("interleaved taps", InterleavedTable(), rows);
    BenchLisa("random", RandomTable(), rows);
    BenchInOrder<AliceNoiseRemoval>("ALICE", rows);
    BenchInOrder<MaranaNoiseRemoval>("MARANA", rows);
    return rows;
}

}  // namespace vosk::bench
