#include <fmt/format.h>
#include <vosk/common/calibrationFile.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/image_processing/noiseRemoval.hpp>

#include <algorithm>
#include <cmath>
#include <span>
#include <stdexcept>

#include <vosk/common/instructionSet.hpp>
#include "rowCleaning.hpp"

namespace vosk::image_processing {

namespace {

using defs::AlignedFrame;

void RequireSize(const char* what, std::size_t actual, std::size_t expected) {
    if (actual == expected) return;
    common::LogAndThrow<std::invalid_argument>(fmt::format("{}: {}, expected: {}", what, actual, expected));
}

void RequireFrameSize(std::size_t actual, std::size_t expected) {
    RequireSize("RemoveNoise: unexpected frame size", actual, expected);
}

AlignedFrame<float> ReadImage(std::size_t width, std::size_t height, const std::string& path,
                              const char* what) {
    AlignedFrame<float> image(width * height);
    common::LoadInto(image, path, {width, height}, what);
    return image;
}

// A loop for each step: with one for all, a pixel would cost three times as much.
template <std::ptrdiff_t STEP>
std::uint32_t SumOfRun(const std::uint16_t* source, std::ptrdiff_t count) {
    std::uint32_t sum = 0;
    for (std::ptrdiff_t i = 0; i < count; ++i) sum += source[i * STEP];
    return sum;
}

std::uint32_t SumAt(const std::uint16_t* raw, std::span<const std::uint32_t> positions) {
    std::uint32_t sum = 0;
    for (const std::uint32_t position : positions) sum += raw[position];
    return sum;
}

// The pixels of the range that the window covers; empty at its start where there are none in a direction.
PixelRange Overlap(const PixelRange& range, const Window& window) {
    PixelRange overlap{std::max<std::size_t>(range.x_start, window.x_offset),
                       std::min<std::size_t>(range.x_stop, window.XStop()),
                       std::max<std::size_t>(range.y_start, window.y_offset),
                       std::min<std::size_t>(range.y_stop, window.YStop())};
    overlap.x_stop = std::max(overlap.x_start, overlap.x_stop);
    overlap.y_stop = std::max(overlap.y_start, overlap.y_stop);
    return overlap;
}

}  // namespace

NoiseRemovalBase::NoiseRemovalBase(std::size_t width, std::size_t height,
                                   const AlignedFrame<float>& master_bias, const AlignedFrame<float>& flat)
    : m_master_bias{master_bias}, m_flat{flat} {
    RequireSize("NoiseRemovalBase: unexpected master bias vector size", m_master_bias.size(), width * height);
    RequireSize("NoiseRemovalBase: unexpected flat vector size", m_flat.size(), width * height);
    m_is_ordinary = IsOrdinary(m_master_bias, m_flat);
    common::ChooseInstructionSet();
}

NoiseRemovalBase::NoiseRemovalBase(std::size_t width, std::size_t height, const std::string& dark_path,
                                   const std::string& flat_path)
    : m_master_bias{ReadImage(width, height, dark_path, "dark")},
      m_flat{ReadImage(width, height, flat_path, "flat")} {
    m_is_ordinary = IsOrdinary(m_master_bias, m_flat);
    common::ChooseInstructionSet();
}

LisaNoiseRemoval::LisaNoiseRemoval(const AlignedFrame<float>& master_bias, const AlignedFrame<float>& flat,
                                   const std::optional<std::string>& scramble_path)
    : NoiseRemovalBase{LisaGeometry::WIDTH, LisaGeometry::HEIGHT, master_bias, flat},
      LisaDescrambler{scramble_path} {
    FindDarkSums();
}

LisaNoiseRemoval::LisaNoiseRemoval(const std::string& dark_path, const std::string& flat_path,
                                   const std::optional<std::string>& scramble_path)
    : NoiseRemovalBase{LisaGeometry::WIDTH, LisaGeometry::HEIGHT, dark_path, flat_path},
      LisaDescrambler{scramble_path} {
    FindDarkSums();
}

void LisaNoiseRemoval::RemoveNoise(gsl::span<const std::uint16_t> frame, const std::optional<Window>&,
                                   const std::optional<Roi>& roi) {
    RequireFrameSize(frame.size(), m_scrambled_size);
    RowCleaning cleaning{{m_master_bias.data(), m_flat.data(), m_is_ordinary, m_width}, m_frame.data()};
    AddRange(frame.data(), RangeOf(roi, m_width, m_height, "RemoveNoise"), cleaning);
    cleaning.Finish();
}

void LisaNoiseRemoval::RemoveNoiseOfMany(gsl::span<const std::uint16_t> frame, const std::optional<Window>&,
                                         std::span<const Roi> rois) {
    RequireFrameSize(frame.size(), m_scrambled_size);
    RowCleaning cleaning{{m_master_bias.data(), m_flat.data(), m_is_ordinary, m_width}, m_frame.data()};
    for (const Roi& roi : rois) {
        AddRange(frame.data(), RangeOf(roi, m_width, m_height, "RemoveNoise"), cleaning);
    }
    cleaning.Finish();
}

void LisaNoiseRemoval::AddRange(const std::uint16_t* raw, const PixelRange& range, RowCleaning& cleaning) {
    std::size_t hint = 0;
    for (std::size_t row = range.y_start; row < range.y_stop;) {
        const auto [alike_stop, raw_stride] = RowsAlike(row);
        const std::size_t stop = std::min({range.y_stop, alike_stop, (row / GROUP_ROWS + 1) * GROUP_ROWS});
        const double bias = ComputeDynamicBias(raw, row / GROUP_ROWS);
        ForEachPiece(row, range.x_start, range.x_stop, hint,
                     [&, raw_stride = raw_stride](const Piece& piece) {
                         const std::size_t first = row * m_width + piece.x_start;
                         const std::size_t count = piece.x_stop - piece.x_start;
                         if (piece.step != 0) {
                             cleaning.Add({raw + piece.source, nullptr, piece.step, first, count, bias,
                                           stop - row, raw_stride});
                         } else {
                             cleaning.Add({raw, m_scramble.data() + first, 0, first, count, bias, 1, 0});
                         }
                     });
        row = stop;
    }
}

// In the order of the sum: row by row, in each the dark columns at the left before those at the right.
template <class Visit>
void LisaNoiseRemoval::ForEachDarkPixel(std::size_t group, Visit&& visit) {
    for (std::size_t row = group * GROUP_ROWS; row < (group + 1) * GROUP_ROWS; ++row) {
        for (const auto& [offset, columns] : BIAS_REGIONS) {
            const std::size_t first = row * LisaGeometry::WIDTH + offset;
            for (std::size_t pixel = first; pixel < first + columns; ++pixel) visit(pixel);
        }
    }
}

double LisaNoiseRemoval::ComputeDynamicBias(const std::uint16_t* raw, std::size_t group) {
    CachedBias& cached = m_bias_cache[group];
    if (cached.generation != m_generation) cached = {m_generation, MeasureDynamicBias(raw, group)};
    return cached.bias;
}

double LisaNoiseRemoval::MeasureDynamicBias(const std::uint16_t* raw, std::size_t group) const {
    constexpr auto COUNT = static_cast<double>(DARK_PIXELS);
    if (const auto& dark_sum = m_dark_sums[group]) return (SumDarkCounts(raw, group) - *dark_sum) / COUNT;
    double sum = 0.0;
    ForEachDarkPixel(group, [&](std::size_t pixel) {
        sum += static_cast<double>(raw[m_scramble[pixel]]);
        sum -= static_cast<double>(m_master_bias[pixel]);
    });
    return sum / COUNT;
}

std::uint32_t LisaNoiseRemoval::SumDarkCounts(const std::uint16_t* raw, std::size_t group) const {
    std::uint32_t sum = 0;
    for (const auto& [offset, columns] : BIAS_REGIONS) {
        std::size_t hint = 0;
        for (std::size_t row = group * GROUP_ROWS; row < (group + 1) * GROUP_ROWS; ++row) {
            ForEachPiece(row, offset, offset + columns, hint, [&](const Piece& piece) {
                const std::uint32_t count = piece.x_stop - piece.x_start;
                const std::uint16_t* const source = raw + piece.source;
                switch (piece.step) {
                    case 1:
                        sum += SumOfRun<1>(source, count);
                        break;
                    case TAP_STEP:
                        sum += SumOfRun<TAP_STEP>(source, count);
                        break;
                    case -TAP_STEP:
                        sum += SumOfRun<-TAP_STEP>(source, count);
                        break;
                    default:
                        sum += SumAt(raw, {m_scramble.data() + row * m_width + piece.x_start, count});
                }
            });
        }
    }
    return sum;
}

// Where the master bias is a multiple of 2^-28 and below 2^17, as that of any real camera is, all sums over a
// group's pixels are multiples of it too and below 2^25: they fit into the 53 bits of a double, nothing is
// ever rounded, and the counts may be summed by themselves, as integers.
void LisaNoiseRemoval::FindDarkSums() {
    constexpr double UNIT = 0x1p-28;
    static_assert(static_cast<double>(DARK_PIXELS) * (0x1p16 + 0x1p17) < 0x1p25);
    const auto is_exact = [](double bias) {
        return std::abs(bias) < 0x1p17 && std::nearbyint(bias / UNIT) * UNIT == bias;
    };
    for (std::size_t group = 0; group < GROUPS; ++group) {
        double sum = 0.0;
        bool all_exact = true;
        ForEachDarkPixel(group, [&](std::size_t pixel) {
            const auto bias = static_cast<double>(m_master_bias[pixel]);
            sum += bias;
            all_exact = all_exact && is_exact(bias);
        });
        if (all_exact) m_dark_sums[group] = sum;
    }
}

AliceNoiseRemoval::AliceNoiseRemoval(const AlignedFrame<float>& master_bias, const AlignedFrame<float>& flat)
    : NoiseRemovalBase{WIDTH, HEIGHT, master_bias, flat}, m_frame(WIDTH * HEIGHT) {}

AliceNoiseRemoval::AliceNoiseRemoval(const std::string& dark_path, const std::string& flat_path)
    : NoiseRemovalBase{WIDTH, HEIGHT, dark_path, flat_path}, m_frame(WIDTH * HEIGHT) {}

void AliceNoiseRemoval::RemoveNoise(gsl::span<const std::uint16_t> frame, const std::optional<Window>&,
                                    const std::optional<Roi>& roi) {
    RequireFrameSize(frame.size(), WIDTH * HEIGHT);
    const PixelRange range = RangeOf(roi, WIDTH, HEIGHT, "RemoveNoise");
    const std::size_t first = range.y_start * WIDTH + range.x_start;
    const Stretch stretch{frame.data() + first, nullptr, 1, first, range.Width(), 0.0, range.Height(), WIDTH};
    CleanStretches(&stretch, 1, {m_master_bias.data(), m_flat.data(), m_is_ordinary, WIDTH}, m_frame.data());
}

MaranaNoiseRemoval::MaranaNoiseRemoval(const AlignedFrame<float>& master_bias,
                                       const AlignedFrame<float>& flat)
    : NoiseRemovalBase{WIDTH, HEIGHT, master_bias, flat}, m_frame(WIDTH * HEIGHT) {}

MaranaNoiseRemoval::MaranaNoiseRemoval(const std::string& dark_path, const std::string& flat_path)
    : NoiseRemovalBase{WIDTH, HEIGHT, dark_path, flat_path}, m_frame(WIDTH * HEIGHT) {}

void MaranaNoiseRemoval::RemoveNoise(gsl::span<const std::uint16_t> frame,
                                     const std::optional<Window>& window, const std::optional<Roi>& roi) {
    RequireFrameSize(frame.size(), WIDTH * HEIGHT);
    const PixelRange range = RangeOf(roi, WIDTH, HEIGHT, "RemoveNoise");
    if (range.Size() == 0) return;
    const Window read = window.value_or(Window{0, 0, WIDTH, HEIGHT});
    if (read.size > frame.size()) {
        common::LogAndThrow<std::invalid_argument>(
            fmt::format("RemoveNoise: window of {} x {} does not fit in a frame of {} pixels", read.width,
                        read.height, frame.size()));
    }
    const PixelRange cleaned = Overlap(range, read);
    if (cleaned.Size() != range.Size()) {
        for (std::size_t row = range.y_start; row < range.y_stop; ++row) {
            std::fill_n(m_frame.data() + row * WIDTH + range.x_start, range.Width(), 0.0F);
        }
    }
    if (cleaned.Size() == 0) return;
    const std::size_t packed =
        (cleaned.y_start - read.y_offset) * read.width + (cleaned.x_start - read.x_offset);
    const Stretch stretch{
        frame.data() + packed, nullptr,   1, cleaned.y_start * WIDTH + cleaned.x_start, cleaned.Width(), 0.0,
        cleaned.Height(),      read.width};
    CleanStretches(&stretch, 1, {m_master_bias.data(), m_flat.data(), m_is_ordinary, WIDTH}, m_frame.data());
}

}  // namespace vosk::image_processing
