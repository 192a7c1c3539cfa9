#include "disturbance.hpp"

#include <cmath>
#include <numbers>
#include <random>

namespace vosk::rig {
namespace {

// Slow against a loop of some ten hertz, so that a loop that works is seen to work.
constexpr double SLOWEST = 0.15;  // hertz
constexpr double STEP = 1.19;     // from one frequency to the next
constexpr double SLOPE = -1.0;    // of amplitude against frequency, on a logarithmic grid

double Sum(const auto& waves, double seconds) {
    double sum = 0.0;
    for (const auto& wave : waves)
        sum += wave.amplitude * std::sin(2.0 * std::numbers::pi * wave.frequency * seconds + wave.phase);
    return sum;
}

}  // namespace

Disturbance::Disturbance(double rms, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    constexpr double RANGE = 2.0 * std::numbers::pi / 18446744073709551616.0;  // of the whole generator
    for (Waves& waves : m_axes) {
        double frequency = SLOWEST;
        double power = 0.0;
        for (Wave& wave : waves) {
            wave = {frequency, std::pow(frequency, SLOPE), static_cast<double>(random()) * RANGE};
            power += wave.amplitude * wave.amplitude / 2.0;
            frequency *= STEP;
        }
        for (Wave& wave : waves) wave.amplitude *= rms / std::sqrt(power);
    }
}

TipTilt Disturbance::At(double seconds) const {
    return {Sum(m_axes[0], seconds), Sum(m_axes[1], seconds)};
}

}  // namespace vosk::rig
