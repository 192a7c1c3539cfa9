#include "cameras/wfsGrid.hpp"

#include "cameras/lisaReadout.hpp"
#include "portableRandom.hpp"
#include "zernike.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace vosk::rig {
namespace {

constexpr std::size_t LEFT = (LisaReadout::WIDTH - WfsGrid::ACROSS * WfsGrid::PITCH) / 2;
constexpr std::size_t TOP = (LisaReadout::HEIGHT - WfsGrid::ACROSS * WfsGrid::PITCH) / 2;
constexpr double CENTER_X = (LisaReadout::WIDTH - 1) / 2.0;
constexpr double CENTER_Y = (LisaReadout::HEIGHT - 1) / 2.0;
constexpr double HALF_PITCH = WfsGrid::PITCH / 2.0;

// Four times the squared distance of a cell from the grid's middle, in cells.
std::size_t Distance(std::size_t cell) {
    const auto axis = [](std::size_t place) {
        const std::size_t twice = 2 * place + 1;
        const std::size_t from_middle = std::max(twice, WfsGrid::ACROSS) - std::min(twice, WfsGrid::ACROSS);
        return from_middle * from_middle;
    };
    return axis(cell % WfsGrid::ACROSS) + axis(cell / WfsGrid::ACROSS);
}

std::vector<std::size_t> ActiveCells(std::size_t count) {
    std::vector<std::size_t> cells(WfsGrid::MOST);
    for (std::size_t cell = 0; cell < cells.size(); ++cell) cells[cell] = cell;
    std::stable_sort(cells.begin(), cells.end(),
                     [](std::size_t a, std::size_t b) { return Distance(a) < Distance(b); });
    cells.resize(count);
    std::sort(cells.begin(), cells.end());
    return cells;
}

double MiddleX(const Subaperture& sub) {
    return (sub.x_start + sub.x_stop - 1) / 2.0;
}
double MiddleY(const Subaperture& sub) {
    return (sub.y_start + sub.y_stop - 1) / 2.0;
}

// Of the circle around all corners, in pixels.
double PupilRadius(const WfsGrid& grid) {
    double radius = 0.0;
    for (const Subaperture& sub : grid.subapertures) {
        radius = std::max(radius, std::hypot(std::abs(MiddleX(sub) - CENTER_X) + HALF_PITCH,
                                             std::abs(MiddleY(sub) - CENTER_Y) + HALF_PITCH));
    }
    return radius;
}

// Solves the symmetric, positive definite system `matrix` * X = `right` in place, by Cholesky's method;
// `right` has `columns` columns, both are row-major.
void Solve(std::vector<double>& matrix, std::size_t size, std::vector<double>& right, std::size_t columns) {
    for (std::size_t i = 0; i < size; ++i) {
        const double before = matrix[i * size + i];
        for (std::size_t k = 0; k < i; ++k) {
            double sum = matrix[i * size + k];
            for (std::size_t j = 0; j < k; ++j) sum -= matrix[i * size + j] * matrix[k * size + j];
            matrix[i * size + k] = sum / matrix[k * size + k];
        }
        double rest = before;
        for (std::size_t j = 0; j < i; ++j) rest -= matrix[i * size + j] * matrix[i * size + j];
        if (!(rest > 1e-10 * before))
            throw std::invalid_argument("the subapertures are too few to tell the modes apart");
        matrix[i * size + i] = std::sqrt(rest);
    }
    const auto subtract = [&](std::size_t to, std::size_t from, double factor) {
        for (std::size_t c = 0; c < columns; ++c)
            right[to * columns + c] -= factor * right[from * columns + c];
    };
    const auto divide = [&](std::size_t row) {
        for (std::size_t c = 0; c < columns; ++c) right[row * columns + c] /= matrix[row * size + row];
    };
    for (std::size_t i = 0; i < size; ++i) {
        for (std::size_t k = 0; k < i; ++k) subtract(i, k, matrix[i * size + k]);
        divide(i);
    }
    for (std::size_t i = size; i-- > 0;) {
        for (std::size_t k = i + 1; k < size; ++k) subtract(i, k, matrix[k * size + i]);
        divide(i);
    }
}

}  // namespace

WfsGrid MakeWfsGrid(std::size_t count, std::uint64_t seed) {
    constexpr double LARGEST_ABERRATION = 0.3;  // pixels
    if (count == 0 || count > WfsGrid::MOST)
        throw std::invalid_argument("a grid has 1 to " + std::to_string(WfsGrid::MOST) + " subapertures");
    PortableRandom random(Scatter(seed) + 1);
    const auto aberration = [&] { return random.Uniform(-LARGEST_ABERRATION, LARGEST_ABERRATION); };
    WfsGrid grid;
    for (const std::size_t cell : ActiveCells(count)) {
        const auto x = static_cast<std::uint16_t>(LEFT + cell % WfsGrid::ACROSS * WfsGrid::PITCH);
        const auto y = static_cast<std::uint16_t>(TOP + cell / WfsGrid::ACROSS * WfsGrid::PITCH);
        Subaperture sub{x,    static_cast<std::uint16_t>(x + WfsGrid::PITCH),
                        y,    static_cast<std::uint16_t>(y + WfsGrid::PITCH),
                        0.0F, 0.0F};
        sub.ref_x = static_cast<float>(MiddleX(sub) + aberration());
        sub.ref_y = static_cast<float>(MiddleY(sub) + aberration());
        grid.subapertures.push_back(sub);
    }
    return grid;
}

std::vector<double> MakeSlopeResponse(const WfsGrid& grid, std::uint32_t modes) {
    const std::vector<ZernikeIndex> order = ZernikeOrder(modes);
    const double radius = PupilRadius(grid);
    const auto value = [radius](const ZernikeIndex& index, double x, double y) {
        return Zernike(index, std::hypot(x, y) / radius, std::atan2(y, x));
    };
    std::vector<double> response;
    response.reserve(2 * grid.subapertures.size() * modes);
    // The mean slope along the middle of the subaperture; tip is 2 x / radius.
    const double scale = radius / 2.0 / (2.0 * HALF_PITCH);
    for (const Subaperture& sub : grid.subapertures) {
        const double x = MiddleX(sub) - CENTER_X;
        const double y = MiddleY(sub) - CENTER_Y;
        for (const ZernikeIndex& index : order)
            response.push_back(scale * (value(index, x + HALF_PITCH, y) - value(index, x - HALF_PITCH, y)));
        for (const ZernikeIndex& index : order)
            response.push_back(scale * (value(index, x, y + HALF_PITCH) - value(index, x, y - HALF_PITCH)));
    }
    return response;
}

std::vector<float> MakeControlMatrix(const WfsGrid& grid, std::uint32_t modes) {
    const std::vector<double> response = MakeSlopeResponse(grid, modes);
    const std::size_t slopes = 2 * grid.subapertures.size();
    std::vector<double> normal(std::size_t{modes} * modes);
    std::vector<double> inverse(modes * slopes);
    for (std::size_t i = 0; i < slopes; ++i) {
        const double* row = response.data() + i * modes;
        for (std::size_t j = 0; j < modes; ++j) {
            inverse[j * slopes + i] = row[j];
            for (std::size_t k = 0; k < modes; ++k) normal[j * modes + k] += row[j] * row[k];
        }
    }
    Solve(normal, modes, inverse, slopes);
    std::vector<float> matrix(slopes * modes);
    for (std::size_t i = 0; i < slopes; ++i) {
        for (std::size_t j = 0; j < modes; ++j)
            matrix[i * modes + j] = static_cast<float>(inverse[j * slopes + i]);
    }
    return matrix;
}

}  // namespace vosk::rig
