#include "cameras/spotProfile.hpp"

#include "portableRandom.hpp"

#include <algorithm>
#include <cmath>

namespace vosk::rig {
namespace {

// Even, so that a centre between two pixels is in the middle; what lies beyond is less than a millionth.
std::size_t SizeFor(double rms) {
    return 2 * static_cast<std::size_t>(std::ceil(5.0 * rms) + 1.0);
}

}  // namespace

SpotProfile::SpotProfile(double rms) : m_size(SizeFor(rms)), m_profiles((PHASES + 1) * m_size) {
    std::vector<double> profile(m_size);
    const std::size_t before = m_size / 2 - 1;  // pixels in front of the one that the centre lies in
    for (std::size_t phase = 0; phase <= PHASES; ++phase) {
        const double center =
            static_cast<double>(before) + static_cast<double>(phase) / static_cast<double>(PHASES);
        double sum = 0.0;
        for (std::size_t i = 0; i < m_size; ++i) {
            const double left = static_cast<double>(i) - 0.5 - center;
            profile[i] = PortableNormalShare((left + 1.0) / rms) - PortableNormalShare(left / rms);
            sum += profile[i];
        }
        for (std::size_t i = 0; i < m_size; ++i)
            m_profiles[phase * m_size + i] = static_cast<float>(profile[i] / sum);
    }
}

std::ptrdiff_t SpotProfile::Evaluate(double center, std::span<float> shares) const {
    const double pixel = std::floor(center);
    const double place = (center - pixel) * static_cast<double>(PHASES);
    const std::size_t phase = std::min(static_cast<std::size_t>(place), PHASES - 1);
    const auto weight = static_cast<float>(place - static_cast<double>(phase));
    const float* before = m_profiles.data() + phase * m_size;
    const float* after = before + m_size;
    for (std::size_t i = 0; i < m_size; ++i) shares[i] = before[i] + weight * (after[i] - before[i]);
    return static_cast<std::ptrdiff_t>(pixel) - static_cast<std::ptrdiff_t>(m_size / 2 - 1);
}

}  // namespace vosk::rig
