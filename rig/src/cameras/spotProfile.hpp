#pragma once

// The image of a point: a Gaussian integrated over square pixels. As it falls apart into a row and a column
// part, it is kept as one profile at 64 places within a pixel; between them the profile is interpolated,
// which keeps the position of its centre exact. Constant after construction.

#include <cstddef>
#include <span>
#include <vector>

namespace vosk::rig {

class SpotProfile {
public:
    // `rms` in pixels.
    explicit SpotProfile(double rms);

    // Pixels that a spot covers along one axis.
    std::size_t Size() const { return m_size; }

    // The shares of a spot's light that fall on the pixels from the returned one on; they sum up to 1.
    // `shares` has Size() elements, `center` is a finite number of moderate size in pixels, in which pixel c
    // reaches from c - 0.5 to c + 0.5.
    std::ptrdiff_t Evaluate(double center, std::span<float> shares) const;

private:
    static constexpr std::size_t PHASES = 64;

    std::size_t m_size;
    std::vector<float> m_profiles;  // one for each phase from 0 to PHASES, m_size values each
};

}  // namespace vosk::rig
