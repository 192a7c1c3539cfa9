#pragma once

// How the instrument makes its commands from the light that it sees: an integrator a mode, which starts at
// zero whenever the instrument gets control of M4. Tip and tilt are its own in sequential control only.

#include "appendLog.hpp"
#include "clock.hpp"
#include "portableRandom.hpp"
#include "telescope/optics.hpp"

#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/sizes.hpp>

#include <array>
#include <atomic>
#include <memory>
#include <span>

namespace vosk::rig {

// What M4 is to do from tip on; the rest of its modes are zero.
using LeadingModes = std::array<float, defs::GPAO_CMD_SIZE>;

struct InstrumentStep {
    time_point time;
    LeadingModes modes{};
};

class InstrumentLoop {
public:
    InstrumentLoop(const Scenario& scenario, std::shared_ptr<const Optics> optics);

    // Any thread.
    void SetMode(defs::VoskControlMode mode) { m_mode = mode; }

    // Looks at the light at `time`, which has come, and writes the command for it. One thread.
    void Step(time_point time, std::span<float, defs::WAVEFRONT_CMD_SIZE> command);

    const AppendLog<InstrumentStep>& Log() const { return m_log; }

private:
    const std::shared_ptr<const Optics> m_optics;
    const double m_gain;
    const double m_leak;
    const double m_noise;
    std::atomic<defs::VoskControlMode> m_mode{defs::VoskControlMode::TEL_DRIVEN};
    AppendLog<InstrumentStep> m_log;
    PortableRandom m_random;
    std::array<double, defs::GPAO_CMD_SIZE> m_command{};
};

}  // namespace vosk::rig
