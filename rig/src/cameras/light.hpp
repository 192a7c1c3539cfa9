#pragma once

// The light that reaches the cameras: a turbulent atmosphere and the telescope's shaking in the wind, as
// Zernike coefficients over time. Each mode is a process of second order. Its variance is that of
// Kolmogorov's turbulence (Noll 1976), and its knee lies where the wind puts it (Conan, Rousset, Madec 1995).
// Correlations between radial orders are left out. The light of a whole run is made ahead and constant
// afterwards: whoever asks twice gets the same, and threads share it freely.

#include "cameras/lightSource.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vosk::rig {

// Of one coefficient of this radial order, in square radians, where the telescope's diameter is Fried's
// parameter.
double NollVariance(unsigned radial_order);

class Light final : public LightSource {
public:
    static constexpr double RATE = 1000.0;  // of the grid that all processes step on, hertz

    Light(const LightSettings& settings, std::uint64_t seed, std::uint32_t modes, Seconds duration);

    std::uint32_t Modes() const override { return m_modes; }
    // Between two grid points linear, beyond the run as at its end.
    void At(Seconds time, std::span<double> coefficients) const override;

private:
    std::uint32_t m_modes;
    std::size_t m_points;
    std::vector<float> m_values;  // m_modes a grid point
};

}  // namespace vosk::rig
