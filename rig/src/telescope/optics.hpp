#pragma once

// The light behind the telescope's mirrors: what comes from the sky, less what M4, M5 and MS took off it. The
// first modes of M4 are the Zernike polynomials themselves, and the rest do nothing. M5 turns against the sky
// as the telescope follows its star.

#include "cameras/lightSource.hpp"
#include "clock.hpp"
#include "telescope/mirror.hpp"

#include <memory>

namespace vosk::rig {

class Optics final : public LightSource {
public:
    Optics(const Scenario& scenario, std::shared_ptr<const LightSource> sky);

    // Before anybody looks.
    void Start(time_point first) { m_first = first; }

    std::uint32_t Modes() const override { return m_sky->Modes(); }
    void At(Seconds time, std::span<double> coefficients) const override;
    // By the clock.
    void At(time_point time, std::span<double> coefficients) const {
        At(Seconds{time - m_first}, coefficients);
    }

    const LightSource& Sky() const { return *m_sky; }
    const std::shared_ptr<Mirror>& M4() const { return m_m4; }
    const std::shared_ptr<Mirror>& M5() const { return m_m5; }  // in its own coordinates
    const std::shared_ptr<Mirror>& Ms() const { return m_ms; }

private:
    std::shared_ptr<const LightSource> m_sky;
    std::shared_ptr<Mirror> m_m4;
    std::shared_ptr<Mirror> m_m5;
    std::shared_ptr<Mirror> m_ms;
    time_point m_first;
};

}  // namespace vosk::rig
