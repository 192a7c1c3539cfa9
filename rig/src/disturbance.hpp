#pragma once

// The tip and tilt that the atmosphere puts on the light: a sum of sinusoids whose amplitudes fall as those
// of turbulence do, a function of time alone, so that whoever judges later knows the same truth. Any thread.

#include "skyRotation.hpp"

#include <array>
#include <cstdint>

namespace vosk::rig {

class Disturbance {
public:
    // `rms`: of each axis over a long time.
    Disturbance(double rms, std::uint64_t seed);

    TipTilt At(double seconds) const;

private:
    struct Wave {
        double frequency = 0.0;  // hertz
        double amplitude = 0.0;
        double phase = 0.0;
    };
    using Waves = std::array<Wave, 16>;

    std::array<Waves, 2> m_axes;
};

}  // namespace vosk::rig
