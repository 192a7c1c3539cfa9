#include "cameras/light.hpp"

#include "portableRandom.hpp"
#include "zernike.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace vosk::rig {
namespace {

// x[k] = first x[k-1] + second x[k-2] + noise, of the given variance from its first value on.
class Process {
public:
    Process(double first, double second, double variance, std::uint64_t seed)
        : m_first(first), m_second(second), m_random(seed) {
        const double correlation = first / (1.0 - second);
        const double share = (1.0 + second) * ((1.0 - second) * (1.0 - second) - first * first);
        m_kick = std::sqrt(variance * share / (1.0 - second));
        m_before = std::sqrt(variance) * m_random.Normal();
        m_now = correlation * m_before +
                std::sqrt(variance * (1.0 - correlation * correlation)) * m_random.Normal();
    }

    double Step() {
        const double next = m_first * m_now + m_second * m_before + m_kick * m_random.Normal();
        m_before = m_now;
        m_now = next;
        return next;
    }

private:
    double m_first;
    double m_second;
    PortableRandom m_random;
    double m_kick = 0.0;
    double m_before = 0.0;
    double m_now = 0.0;
};

Process MakeTurbulence(const LightSettings& settings, unsigned radial_order, std::uint64_t seed) {
    const double knee = 0.3 * (radial_order + 1.0) * settings.v_over_d;
    const double pole = std::exp(-2.0 * std::numbers::pi * knee / Light::RATE);
    const double variance = NollVariance(radial_order) * std::pow(settings.d_over_r0, 5.0 / 3.0);
    return {2.0 * pole, -pole * pole, variance, seed};
}

Process MakeShake(const LightSettings& settings, std::uint64_t seed) {
    const double angle = 2.0 * std::numbers::pi * settings.shake_frequency / Light::RATE;
    const double damping = settings.shake_damping;
    const double radius = std::exp(-damping * angle);
    return {2.0 * radius * std::cos(angle * std::sqrt(1.0 - damping * damping)), -radius * radius,
            settings.shake_rms * settings.shake_rms, seed};
}

}  // namespace

double NollVariance(unsigned radial_order) {
    return 0.756 * (radial_order + 1.0) * std::tgamma(radial_order - 5.0 / 6.0) /
           std::tgamma(radial_order + 23.0 / 6.0);
}

Light::Light(const LightSettings& settings, std::uint64_t seed, std::uint32_t modes, Seconds duration)
    : m_modes(modes),
      m_points(static_cast<std::size_t>(duration.count() * RATE) + 2),
      m_values(m_points * modes) {
    constexpr std::uint32_t SHAKEN = 2;  // tip and tilt
    const std::vector<ZernikeIndex> order = ZernikeOrder(modes);
    for (std::uint32_t mode = 0; mode < modes; ++mode) {
        Process turbulence =
            MakeTurbulence(settings, order[mode].radial, Scatter(seed) + 2 * std::uint64_t{mode});
        Process shake = MakeShake(settings, Scatter(seed) + 2 * std::uint64_t{mode} + 1);
        for (std::size_t point = 0; point < m_points; ++point) {
            const double value = turbulence.Step() + (mode < SHAKEN ? shake.Step() : 0.0);
            m_values[point * modes + mode] = static_cast<float>(value);
        }
    }
}

void Light::At(Seconds time, std::span<double> coefficients) const {
    const double place = std::clamp(time.count() * RATE, 0.0, static_cast<double>(m_points - 1));
    const std::size_t point = std::min(static_cast<std::size_t>(place), m_points - 2);
    const double share = place - static_cast<double>(point);
    const float* const before = m_values.data() + point * m_modes;
    for (std::uint32_t mode = 0; mode < m_modes; ++mode)
        coefficients[mode] = (1.0 - share) * double{before[mode]} + share * double{before[m_modes + mode]};
}

}  // namespace vosk::rig
