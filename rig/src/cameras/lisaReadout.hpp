#pragma once

// How a LISA camera puts its image on the wire. The sensor is read at both ends: the lower half upwards from
// row 0, the upper half downwards from the last row, each half through four taps of 210 columns. Taps of even
// number start at their left column, those of odd number at their right, and each delivers 30 prescan pixels,
// which have no place in the image, before the first of a row. All eight taps are clocked together and their
// values interleaved: position line * 1920 + step * 8 + tap, with taps 0 to 3 those of the lower half.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vosk::rig {

struct LisaReadout {
    static constexpr std::size_t WIDTH = 840;
    static constexpr std::size_t HEIGHT = 816;
    static constexpr std::size_t RAW_WIDTH = 960;
    static constexpr std::size_t TAPS = 8;
    static constexpr std::size_t TAPS_A_ROW = TAPS / 2;
    static constexpr std::size_t TAP_COLUMNS = WIDTH / TAPS_A_ROW;
    static constexpr std::size_t PRESCAN = RAW_WIDTH / TAPS_A_ROW - TAP_COLUMNS;  // steps before a tap's row

    // Raw positions of the pixels of a row, `column` below WIDTH, and of what its taps deliver beside them,
    // `index` below RAW_WIDTH - WIDTH. Every raw position belongs to one or the other.
    static std::uint32_t PixelPosition(std::size_t row, std::size_t column);
    static std::uint32_t PrescanPosition(std::size_t row, std::size_t index);
};

// For each pixel of the image, row by row, its position in the raw buffer.
std::vector<std::uint32_t> MakeLisaDescramblingTable();

}  // namespace vosk::rig
