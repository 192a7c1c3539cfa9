#pragma once

// The Shack-Hartmann sensor behind a LISA camera: where its subapertures are, and how modes show in its
// spots. For set-up.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vosk::rig {

struct Subaperture {
    std::uint16_t x_start;
    std::uint16_t x_stop;  // one past the last column
    std::uint16_t y_start;
    std::uint16_t y_stop;
    // Where the spot of a flat wavefront is: near the middle, off it by what the optics do to each one.
    float ref_x;
    float ref_y;
};

struct WfsGrid {
    static constexpr std::size_t ACROSS = 32;
    static constexpr std::size_t PITCH = 24;  // pixels
    static constexpr std::size_t MOST = ACROSS * ACROSS;
    static constexpr std::size_t FEWEST = 43;  // that tell as many modes apart as the host reconstructs

    std::vector<Subaperture> subapertures;  // row by row
};

// The `count` cells of the grid that are nearest to its middle, so that any number but all of them makes a
// round pupil. The grid lies clear of the columns that see no light. std::invalid_argument unless 1..MOST.
WfsGrid MakeWfsGrid(std::size_t count, std::uint64_t seed);

// What a mode of amplitude 1 does to the spots: x and y of each subaperture in pixels, 2 * subapertures rows
// of `modes` values. Zernike modes, scaled such that tip and tilt move all spots by one pixel.
std::vector<double> MakeSlopeResponse(const WfsGrid& grid, std::uint32_t modes);

// The least-squares inverse, from slopes to modes, in the order in which it is applied: 2 * subapertures rows
// of `modes` values; mode j is the sum of value (i, j) times slope i. std::invalid_argument if the
// subapertures are too few to tell the modes apart.
std::vector<float> MakeControlMatrix(const WfsGrid& grid, std::uint32_t modes);

}  // namespace vosk::rig
