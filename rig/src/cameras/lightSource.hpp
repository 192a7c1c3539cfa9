#pragma once

// Light as its Zernike coefficients over time, from tip on, radians rms. Whoever asks twice for a time that
// has passed gets the same light. Any thread.

#include "scenario.hpp"

#include <cstdint>
#include <span>

namespace vosk::rig {

class LightSource {
public:
    LightSource() = default;
    virtual ~LightSource() = default;
    LightSource(const LightSource&) = delete;
    LightSource& operator=(const LightSource&) = delete;

    virtual std::uint32_t Modes() const = 0;
    // `time`: after the start of the run. As many coefficients as there are modes.
    virtual void At(Seconds time, std::span<double> coefficients) const = 0;
};

}  // namespace vosk::rig
