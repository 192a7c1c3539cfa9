#include "peers/wavefront.hpp"

#include "portableRandom.hpp"

#include <cmath>
#include <numbers>
#include <random>

namespace vosk::rig {
namespace {

constexpr std::size_t NOISE_WINDOWS = 8192;

// Amplitude of an element of a command. Turbulence has its strength in the low modes; the exponent is that
// of modal rms against mode number in a Kolmogorov atmosphere.
double ModalAmplitude(std::size_t element) {
    const std::size_t mode = element < 2 ? element : element - 2;
    return std::pow(static_cast<double>(mode) + 2.0, -11.0 / 12.0);
}

}  // namespace

WavefrontGenerator::WavefrontGenerator(const InstrumentSettings& settings, std::uint64_t seed)
    : m_rate(settings.rate), m_noise(defs::WAVEFRONT_CMD_SIZE + NOISE_WINDOWS) {
    std::mt19937_64 random(seed);
    std::normal_distribution<double> normal;
    std::uniform_real_distribution<double> uniform;
    const double slowest = 1e3 / static_cast<double>(settings.drift_period.count());
    for (std::size_t shape = 0; shape < SHAPES; ++shape) {
        m_frequencies[shape] = slowest * (1.0 + 0.37 * static_cast<double>(shape));
        m_phases[shape] = 2.0 * std::numbers::pi * uniform(random);
        m_shapes[shape].resize(defs::WAVEFRONT_CMD_SIZE);
        for (std::size_t i = 0; i < defs::WAVEFRONT_CMD_SIZE; ++i)
            m_shapes[shape][i] =
                static_cast<float>(normal(random) * ModalAmplitude(i) * std::sqrt(2.0 / SHAPES));
    }
    for (float& value : m_noise) value = static_cast<float>(normal(random) * settings.noise);
}

void WavefrontGenerator::Make(std::uint64_t number,
                              std::span<float, defs::WAVEFRONT_CMD_SIZE> command) const {
    std::array<float, SHAPES> weights{};
    const double seconds = static_cast<double>(number) / m_rate;
    for (std::size_t shape = 0; shape < SHAPES; ++shape) {
        const double turn = 2.0 * std::numbers::pi * m_frequencies[shape] * seconds + m_phases[shape];
        weights[shape] = static_cast<float>(std::cos(turn));
    }
    const float* noise = m_noise.data() + Scatter(number) % NOISE_WINDOWS;
    for (std::size_t i = 0; i < command.size(); ++i) {
        // High modes get little noise, as they get little signal.
        float value = noise[i] / (1.0F + 0.05F * static_cast<float>(i));
        for (std::size_t shape = 0; shape < SHAPES; ++shape) value += weights[shape] * m_shapes[shape][i];
        command[i] = value;
    }
}

}  // namespace vosk::rig
