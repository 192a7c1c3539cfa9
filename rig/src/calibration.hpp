#pragma once

// The calibration data that a fresh machine does not have: the matrix that projects modes onto the actuators
// of M4, and the limits that go with it. Made, written and read on the controlling thread, at set-up.

#include "scenario.hpp"

#include <cstdint>
#include <filesystem>
#include <vector>

namespace vosk::rig {

// Row-major, one row of `modes` values an actuator.
struct ModalBasis {
    std::uint32_t modes = 0;
    std::vector<float> matrix;
};

struct SaturationLimits {
    float velocity = 0.0F;  // largest change of an actuator in one cycle
    float gap = 0.0F;       // largest position of an actuator
};

// The calibration data of the AO loop, and the file in which the host finds its matrix.
struct LoopCalibration {
    std::filesystem::path basis_file;
    ModalBasis basis;
    SaturationLimits limits;
};

// Zernike polynomials from tip on, of rms 1 over a round mirror whose actuators are spread evenly over it.
ModalBasis MakeModalBasis(std::uint32_t modes);

// Limits that ordinary commands of this scenario keep, but for about one in a hundred.
SaturationLimits ChooseLimits(const ModalBasis& basis, const Scenario& scenario);

// A FITS image of 32-bit floats, `modes` wide and one row an actuator. Throw std::runtime_error.
void WriteModalBasis(const std::filesystem::path& file, const ModalBasis& basis);
ModalBasis ReadModalBasis(const std::filesystem::path& file);

// From elements of a setpoint to GPAO's modes and back: the first elements are these modes.
struct GpaoFiles {
    std::filesystem::path ins2gpao;
    std::filesystem::path gpao2ins;
};

// Below `directory`. Throws std::runtime_error.
GpaoFiles WriteGpaoFiles(const std::filesystem::path& directory);

}  // namespace vosk::rig
