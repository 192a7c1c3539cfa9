#include "peers/absences.hpp"

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

}  // namespace vosk::rig
