#include "peers/absences.hpp"

#include <algorithm>

namespace vosk::rig {

void Absences::Begin(time_point now) {
    const std::lock_guard lock(m_mutex);
    m_absences.push_back({now, time_point::max()});
}

void Absences::End(time_point now) {
    const std::lock_guard lock(m_mutex);
    if (!m_absences.empty()) m_absences.back().to = now;
}

std::vector<Absences::Absence> Absences::All() const {
    const std::lock_guard lock(m_mutex);
    return m_absences;
}

bool IsAway(std::span<const Absences::Absence> absences, time_point time, std::chrono::nanoseconds before) {
    return std::any_of(absences.begin(), absences.end(), [&](const Absences::Absence& absence) {
        return time >= absence.from - before && time <= absence.to;
    });
}

}  // namespace vosk::rig
