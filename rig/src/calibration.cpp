#include "calibration.hpp"

#include "files.hpp"
#include "judge/prediction.hpp"
#include "peers/wavefront.hpp"
#include "zernike.hpp"

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

// Ones on the diagonal.
std::vector<float> MakeUnity(std::size_t rows, std::size_t columns) {
    std::vector<float> matrix(rows * columns);
    for (std::size_t i = 0; i < std::min(rows, columns); ++i) matrix[i * columns + i] = 1.0F;
    return matrix;
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
    WriteFitsImage<float>(file, basis.matrix, {basis.modes, defs::M4_CMD_SIZE});
}

ModalBasis ReadModalBasis(const std::filesystem::path& file) {
    const auto fits = common::Fits::FitsFile(file.string());
    const auto axes = common::Fits::ReadImgParams(fits).first;
    if (axes.size() != 2 || axes[0] < 2 || axes[1] != defs::M4_CMD_SIZE)
        throw std::runtime_error(fmt::format("{}: the image must have two axes, the second of {}",
                                             file.string(), defs::M4_CMD_SIZE));
    return {static_cast<std::uint32_t>(axes[0]), common::Fits::ReadImg<float>(fits)};
}

GpaoFiles WriteGpaoFiles(const std::filesystem::path& directory) {
    GpaoFiles files{directory / "ins2gpao.fits", directory / "gpao2ins.fits"};
    constexpr std::size_t MODES = defs::GPAO_CMD_SIZE;
    std::filesystem::create_directories(directory);
    WriteFitsImage<float>(files.ins2gpao, MakeUnity(defs::M4_CMD_SIZE, MODES), {MODES, defs::M4_CMD_SIZE});
    WriteFitsImage<float>(files.gpao2ins, MakeUnity(MODES, defs::INS_CMD_SIZE), {defs::INS_CMD_SIZE, MODES});
    return files;
}

}  // namespace vosk::rig
