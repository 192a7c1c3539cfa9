#include "telescope/optics.hpp"

#include "skyRotation.hpp"

#include <vosk/defs/sizes.hpp>

#include <algorithm>
#include <array>
#include <utility>

namespace vosk::rig {

Optics::Optics(const Scenario& scenario, std::shared_ptr<const LightSource> sky)
    : m_sky(std::move(sky)),
      m_m4(std::make_shared<Mirror>(m_sky->Modes(), scenario.telescope->m4_lag,
                                    2 * scenario.ExpectedCommands())),
      m_m5(std::make_shared<Mirror>(2, scenario.streams->m5_lag, scenario.LoopSamples())),
      m_ms(std::make_shared<Mirror>(2, scenario.telescope->ms_lag, scenario.LoopSamples())) {}

void Optics::At(Seconds time, std::span<double> coefficients) const {
    const time_point moment = m_first + std::chrono::duration_cast<std::chrono::nanoseconds>(time);
    std::array<double, defs::GPAO_CMD_SIZE> m4{};
    std::array<double, 2> m5{};
    std::array<double, 2> ms{};
    m_sky->At(time, coefficients);
    m_m4->At(moment, m4);
    m_m5->At(moment, m5);
    m_ms->At(moment, ms);
    const TipTilt on_sky = M5ToSky({m5[0], m5[1]}, PointingAt(time.count()));
    for (std::size_t mode = 0; mode < coefficients.size(); ++mode) coefficients[mode] -= m4[mode];
    coefficients[0] -= on_sky.tip + ms[0];
    coefficients[1] -= on_sky.tilt + ms[1];
}

}  // namespace vosk::rig
