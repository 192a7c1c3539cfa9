#pragma once

// The wavefront that the instrument sees: a few fixed modal shapes that drift slowly against each other, and
// fresh noise in every command. A command is a function of its number alone, so that whoever checks it later
// can make the same bits again. Constant after construction; Make may run on several threads at once.

#include "scenario.hpp"

#include <vosk/defs/sizes.hpp>

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace vosk::rig {

class WavefrontGenerator {
public:
    WavefrontGenerator(const InstrumentSettings& settings, std::uint64_t seed);

    // Writes command `number`: two tip/tilt pairs and the high-order part, with modal amplitudes that fall
    // with the mode's number. The rms over one command's managed modes is near 1. Allocates nothing.
    void Make(std::uint64_t number, std::span<float, defs::WAVEFRONT_CMD_SIZE> command) const;

private:
    static constexpr std::size_t SHAPES = 6;
    using Vector = std::vector<float>;

    double m_rate;
    std::array<double, SHAPES> m_frequencies{};  // hertz
    std::array<double, SHAPES> m_phases{};
    std::array<Vector, SHAPES> m_shapes;
    Vector m_noise;  // longer than a command; each command takes a window of its own
};

}  // namespace vosk::rig
