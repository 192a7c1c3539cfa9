#include "cameras/lisaReadout.hpp"

namespace vosk::rig {
namespace {

std::uint32_t Position(std::size_t row, std::size_t tap_in_row, std::size_t step) {
    constexpr std::size_t STEPS = LisaReadout::TAP_COLUMNS + LisaReadout::PRESCAN;
    const bool upper = row >= LisaReadout::HEIGHT / 2;
    const std::size_t line = upper ? LisaReadout::HEIGHT - 1 - row : row;
    const std::size_t tap = upper ? LisaReadout::TAPS_A_ROW + tap_in_row : tap_in_row;
    return static_cast<std::uint32_t>((line * STEPS + step) * LisaReadout::TAPS + tap);
}

}  // namespace

std::uint32_t LisaReadout::PixelPosition(std::size_t row, std::size_t column) {
    const std::size_t tap = column / TAP_COLUMNS;
    const std::size_t from_left = column % TAP_COLUMNS;
    const std::size_t from_start = tap % 2 == 0 ? from_left : TAP_COLUMNS - 1 - from_left;
    return Position(row, tap, PRESCAN + from_start);
}

std::uint32_t LisaReadout::PrescanPosition(std::size_t row, std::size_t index) {
    return Position(row, index / PRESCAN, index % PRESCAN);
}

std::vector<std::uint32_t> MakeLisaDescramblingTable() {
    std::vector<std::uint32_t> table;
    table.reserve(LisaReadout::WIDTH * LisaReadout::HEIGHT);
    for (std::size_t row = 0; row < LisaReadout::HEIGHT; ++row) {
        for (std::size_t column = 0; column < LisaReadout::WIDTH; ++column)
            table.push_back(LisaReadout::PixelPosition(row, column));
    }
    return table;
}

}  // namespace vosk::rig
