#include "telescope/instrumentLoop.hpp"

#include <algorithm>
#include <utility>

namespace vosk::rig {

using defs::VoskControlMode;

InstrumentLoop::InstrumentLoop(const Scenario& scenario, std::shared_ptr<const Optics> optics)
    : m_optics(std::move(optics)),
      m_gain(scenario.telescope->instrument_gain),
      m_leak(scenario.telescope->instrument_leak),
      m_noise(scenario.instrument.noise),
      m_log(scenario.ExpectedCommands()),
      m_random(Scatter(scenario.seed) + 3) {}

void InstrumentLoop::Step(time_point time, std::span<float, defs::WAVEFRONT_CMD_SIZE> command) {
    std::array<double, defs::GPAO_CMD_SIZE> light{};
    m_optics->At(time, light);
    const VoskControlMode mode = m_mode;
    for (std::size_t i = 0; i < m_command.size(); ++i) {
        const bool is_mine = i < 2 ? mode == VoskControlMode::INS_DRIVEN_SEQUENTIAL : defs::IsInsDriven(mode);
        const double error = light[i] + m_noise * m_random.Normal();
        m_command[i] = is_mine ? m_leak * m_command[i] + m_gain * error : 0.0;
    }
    InstrumentStep* const step = m_log.Append();
    if (step == nullptr) return;
    step->time = time;
    std::transform(m_command.begin(), m_command.end(), step->modes.begin(),
                   [](double value) { return static_cast<float>(value); });
    m_log.Publish(m_log.WrittenCount());
    // The first pair is a reference for field stabilisation, which nobody asks for here.
    std::fill(command.begin(), command.end(), 0.0F);
    std::copy(step->modes.begin(), step->modes.end(), command.begin() + 2);
}

}  // namespace vosk::rig
