#include "judge/loopModel.hpp"

#include <cmath>
#include <complex>
#include <numbers>

namespace vosk::rig {
namespace {

constexpr double TURN = 2.0 * std::numbers::pi;

}  // namespace

LoopModel::LoopModel(const std::vector<LoopController>& controllers, double period)
    : m_period(period), m_controllers(controllers), m_values(controllers.size()) {
    for (std::size_t i = 0; i < controllers.size(); ++i)
        for (const LoopMirror& mirror : controllers[i].mirrors)
            m_mirrors.push_back({i, mirror, 0.0, 0.0, {}});
}

double LoopModel::Step(double light) {
    double residual = light;
    for (const Mirror& mirror : m_mirrors) residual -= mirror.position;
    for (std::size_t i = 0; i < m_controllers.size(); ++i)
        m_values[i] = m_controllers[i].leak * m_values[i] + m_controllers[i].gain * residual;
    for (Mirror& mirror : m_mirrors) {
        mirror.pending.push_back(
            {mirror.settings.delay, mirror.settings.share * m_values[mirror.controller]});
        Pass(mirror);
    }
    return residual;
}

void LoopModel::Pass(Mirror& mirror) const {
    double now = 0.0;
    const auto follow = [&](double until) {
        const double left = std::exp(-(until - now) / mirror.settings.lag);
        mirror.position = mirror.target + (mirror.position - mirror.target) * left;
        now = until;
    };
    auto next = mirror.pending.begin();
    for (; next != mirror.pending.end() && next->time < m_period; ++next) {
        follow(next->time);
        mirror.target = next->target;
    }
    follow(m_period);
    mirror.pending.erase(mirror.pending.begin(), next);
    for (Command& command : mirror.pending) command.time -= m_period;
}

std::vector<double> RejectionAt(const std::vector<LoopController>& controllers, double period,
                                const std::vector<double>& frequencies) {
    constexpr std::size_t STEPS = 4096;
    LoopModel model(controllers, period);
    std::vector<double> response;
    for (std::size_t step = 0; step < STEPS; ++step) response.push_back(model.Step(step == 0 ? 1.0 : 0.0));
    std::vector<double> rejection;
    for (const double frequency : frequencies) {
        std::complex<double> sum;
        for (std::size_t step = 0; step < STEPS; ++step)
            sum += std::polar(response[step], -TURN * frequency * period * static_cast<double>(step));
        rejection.push_back(std::abs(sum));
    }
    return rejection;
}

std::vector<double> PowerSpectrum(const std::vector<double>& values, std::size_t length) {
    std::vector<double> power(length / 2 - 1);
    std::size_t windows = 0;
    for (std::size_t begin = 0; begin + length <= values.size(); begin += length / 2, ++windows) {
        for (std::size_t k = 1; k <= power.size(); ++k) {
            std::complex<double> sum;
            for (std::size_t i = 0; i < length; ++i) {
                const double place = static_cast<double>(i) / static_cast<double>(length);
                const double hann = 0.5 - 0.5 * std::cos(TURN * place);
                sum += hann * values[begin + i] * std::polar(1.0, -TURN * static_cast<double>(k) * place);
            }
            power[k - 1] += std::norm(sum);
        }
    }
    for (double& value : power) value /= static_cast<double>(windows == 0 ? 1 : windows);
    return power;
}

}  // namespace vosk::rig
