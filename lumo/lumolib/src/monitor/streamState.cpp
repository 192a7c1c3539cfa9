#include <lumolib/streamState.hpp>

#include <lumolib/wrappingTime.hpp>

namespace vosk::lumo {

namespace {

float Seconds(std::chrono::nanoseconds duration) {
    return static_cast<float>(duration.count()) / 1e9F;
}

}  // namespace

StreamState::StreamState(DataStreamIdentifier stream_id) : m_stream_id(stream_id) {}

void StreamState::RecordSample(std::uint32_t Figures::*counter, time_point time) {
    const std::lock_guard lock(m_mutex);
    auto& figures = m_figures;
    ++(figures.*counter);
    if (figures.last_time != time_point{}) {
        figures.period_known = true;
        figures.period = WrappingDifference(time, figures.last_time);
    }
    figures.last_time = time;
    if (figures.period == std::chrono::nanoseconds::zero()) return;
    if (figures.period >= figures.period_max) figures.period_max = figures.period;
    if (figures.period <= figures.period_min) figures.period_min = figures.period;
}

void StreamState::StoreLosses(const StreamLosses& losses) {
    const std::lock_guard lock(m_mutex);
    m_figures.losses = losses;
}

StreamTopic StreamState::ReadTopic() const {
    const std::lock_guard lock(m_mutex);
    const float period = Seconds(m_figures.period);
    return {.time = atomclk::AtomClk::now(),
            .valid = m_figures.period_known,
            .stream_id = static_cast<std::uint32_t>(m_stream_id),
            .enabled = true,
            .sample_count = m_figures.sample_count,
            .invalid_count = m_figures.invalid_count,
            .period_max = Seconds(m_figures.period_max),
            .period_min = Seconds(m_figures.period_min),
            .period = period,
            .rate = 1.0F / period,
            .losses = m_figures.losses};
}

void StreamState::ClearFigures() {
    const std::lock_guard lock(m_mutex);
    m_figures = {};
}

}  // namespace vosk::lumo
