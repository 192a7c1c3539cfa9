#include "calibration.hpp"

#include "prediction.hpp"
#include "wavefront.hpp"

#include <fmt/format.h>
#include <vosk/common/fits.hpp>
#include <vosk/defs/sizes.hpp>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <span>
#include <stdexcept>

namespace vosk::rig {
namespace {

struct ZernikeIndex {
    unsigned radial;
    unsigned azimuthal;
    bool sine;
};

// In the order of Noll's numbering, from tip on: by radial order, then by azimuthal order.
std::vector<ZernikeIndex> ZernikeOrder(std::uint32_t modes) {
    std::vector<ZernikeIndex> order;
    for (unsigned radial = 1; order.size() < modes; ++radial) {
        for (unsigned azimuthal = radial % 2; azimuthal <= radial; azimuthal += 2) {
            order.push_back({radial, azimuthal, false});
            if (azimuthal > 0) order.push_back({radial, azimuthal, true});
        }
    }
    order.resize(modes);
    return order;
}

// The radial part through the recurrence of the Jacobi polynomials P^(0, azimuthal), which stays exact to
// rounding at orders where the usual sum of factorials has lost every digit.
double ZernikeRadial(unsigned radial, unsigned azimuthal, double radius) {
    const double x = 2.0 * radius * radius - 1.0;
    const double b = azimuthal;
    double previous = 1.0;
    double current = 1.0 + (b + 2.0) * (x - 1.0) / 2.0;
    const unsigned degree = (radial - azimuthal) / 2;
    if (degree == 0) current = previous;
    for (unsigned step = 2; step <= degree; ++step) {
        const double n = step;
        const double c = 2.0 * n + b;
        const double next = ((c - 1.0) * (c * (c - 2.0) * x - b * b) * current -
                             2.0 * (n - 1.0) * (n + b - 1.0) * c * previous) /
                            (2.0 * n * (n + b) * (c - 2.0));
        previous = current;
        current = next;
    }
    return current * std::pow(radius, b);
}

double Zernike(const ZernikeIndex& index, double radius, double angle) {
    const double radial = ZernikeRadial(index.radial, index.azimuthal, radius);
    if (index.azimuthal == 0) return std::sqrt(index.radial + 1.0) * radial;
    const double turn = index.azimuthal * angle;
    return std::sqrt(2.0 * (index.radial + 1.0)) * radial * (index.sine ? std::sin(turn) : std::cos(turn));
}

double Quantile(std::vector<double>& values, double share) {
    const auto position = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + position, values.end());
    return values[static_cast<std::size_t>(position)];
}

double LargestMagnitude(const std::vector<double>& values) {
    double largest = 0.0;
    for (double value : values) largest = std::max(largest, std::abs(value));
    return largest;
}

}  // namespace

ModalBasis MakeModalBasis(std::uint32_t modes) {
    ModalBasis basis{modes, std::vector<float>(defs::M4_CMD_SIZE * modes)};
    const std::vector<ZernikeIndex> order = ZernikeOrder(modes);
    // A sunflower: the golden angle spreads any number of points evenly over a disc.
    const double golden_angle = std::numbers::pi * (3.0 - std::sqrt(5.0));
    for (std::size_t actuator = 0; actuator < defs::M4_CMD_SIZE; ++actuator) {
        const double radius = std::sqrt((static_cast<double>(actuator) + 0.5) / defs::M4_CMD_SIZE);
        const double angle = golden_angle * static_cast<double>(actuator);
        float* row = basis.matrix.data() + actuator * modes;
        for (std::size_t mode = 0; mode < modes; ++mode)
            row[mode] = static_cast<float>(Zernike(order[mode], radius, angle));
    }
    return basis;
}

SaturationLimits ChooseLimits(const ModalBasis& basis, const Scenario& scenario) {
    constexpr std::uint64_t PAIRS = 160;
    const ProjectionMatrix projection(basis);
    const WavefrontGenerator wavefront(scenario.instrument, scenario.seed);
    const auto commands = static_cast<std::uint64_t>(scenario.instrument.rate * scenario.duration.count());
    const std::uint64_t stride = std::max<std::uint64_t>(commands / PAIRS, 1);
    std::vector<std::vector<float>> wires(2 * PAIRS, std::vector<float>(defs::WAVEFRONT_CMD_SIZE));
    std::vector<std::span<const float>> modal;
    for (std::uint64_t i = 0; i < wires.size(); ++i) {
        wavefront.Make(i / 2 * stride + i % 2, std::span<float, defs::WAVEFRONT_CMD_SIZE>(wires[i]));
        // As in sequential mode, where the instrument commands tip and tilt too and so moves M4 the furthest.
        modal.push_back(std::span<const float>(wires[i]).subspan(2, basis.modes));
    }
    std::vector<Positions> projected(modal.size());
    projection.Project(modal, projected);

    std::vector<double> steps;
    std::vector<double> positions;
    for (std::size_t pair = 0; pair < PAIRS; ++pair) {
        const std::vector<double>& before = projected[2 * pair].actuators;
        std::vector<double>& after = projected[2 * pair + 1].actuators;
        positions.push_back(LargestMagnitude(after));
        for (std::size_t i = 0; i < after.size(); ++i) after[i] -= before[i];
        steps.push_back(LargestMagnitude(after));
    }
    return {static_cast<float>(Quantile(steps, 0.98)), static_cast<float>(Quantile(positions, 0.99))};
}

void WriteModalBasis(const std::filesystem::path& file, const ModalBasis& basis) {
    // Written beside and moved into place, so that an interrupted run leaves no half of a file.
    const std::filesystem::path partial = file.string() + ".part";
    {
        const auto fits = common::Fits::FitsFileWrite(partial.string(), true);
        common::Fits::WriteImg<float>(fits, basis.matrix, {basis.modes, defs::M4_CMD_SIZE});
    }
    std::filesystem::rename(partial, file);
}

ModalBasis ReadModalBasis(const std::filesystem::path& file) {
    const auto fits = common::Fits::FitsFile(file.string());
    const auto axes = common::Fits::ReadImgParams(fits).first;
    if (axes.size() != 2 || axes[0] < 2 || axes[1] != defs::M4_CMD_SIZE)
        throw std::runtime_error(fmt::format("{}: the image must have two axes, the second of {}",
                                             file.string(), defs::M4_CMD_SIZE));
    return {static_cast<std::uint32_t>(axes[0]), common::Fits::ReadImg<float>(fits)};
}

}  // namespace vosk::rig
