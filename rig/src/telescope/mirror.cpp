#include "telescope/mirror.hpp"

#include <algorithm>
#include <cmath>

namespace vosk::rig {

Mirror::Mirror(std::size_t modes, std::chrono::nanoseconds lag, std::size_t commands)
    : m_modes(modes), m_lag(std::chrono::duration<double>(lag).count()) {
    m_times.reserve(commands);
    m_values.reserve(2 * modes * commands);
}

void Mirror::Follow(time_point time, std::span<const double> target) {
    const std::scoped_lock lock(m_mutex);
    time = std::max(time, m_seen);
    const std::size_t begin = m_values.size();
    m_values.resize(begin + 2 * m_modes);
    Place(time, std::span(m_values).subspan(begin, m_modes));
    std::copy_n(target.begin(), m_modes, m_values.begin() + static_cast<std::ptrdiff_t>(begin + m_modes));
    m_times.push_back(time);
    m_seen = time;
}

void Mirror::Hold(time_point time) {
    std::vector<double> position(m_modes);
    At(time, position);
    Follow(time, position);
}

void Mirror::At(time_point time, std::span<double> position) const {
    const std::scoped_lock lock(m_mutex);
    m_seen = std::max(m_seen, time);
    Place(time, position);
}

void Mirror::Place(time_point time, std::span<double> position) const {
    const auto next = std::upper_bound(m_times.begin(), m_times.end(), time);
    if (next == m_times.begin()) {
        std::fill_n(position.begin(), m_modes, 0.0);
        return;
    }
    const auto command = static_cast<std::size_t>(next - m_times.begin()) - 1;
    const double* const start = m_values.data() + command * 2 * m_modes;
    const double* const target = start + m_modes;
    const double since = std::chrono::duration<double>(time - m_times[command]).count();
    const double left = std::exp(-since / m_lag);
    for (std::size_t mode = 0; mode < m_modes; ++mode)
        position[mode] = target[mode] + (start[mode] - target[mode]) * left;
}

}  // namespace vosk::rig
