#include <lumolib/streamOutput.hpp>

namespace vosk::lumo {

namespace {

constexpr defs::sample_id_t TELEMETRY_STEP = 500;

pktwire::qudex::Sender::Config Defaults(std::uint16_t num_frames, std::size_t sample_size) {
    pktwire::qudex::Sender::Config config{};
    config.num_frames = num_frames;
    config.sample_size = sample_size;
    return config;
}

}  // namespace

QudexOutput::QudexOutput(const std::string& name, const oru::configng::PliConfigInstanceNode& node,
                         std::uint16_t num_frames, std::size_t sample_size, Figures figures)
    : TxThread{name, node, "", std::chrono::microseconds{0}, std::chrono::microseconds{0}},
      TxQudex{node, {}, Defaults(num_frames, sample_size), MemoryResource(), m_description},
      m_figures{std::move(figures)} {}

void QudexOutput::Work(std::promise<void>& started) {
    OnStart();
    started.set_value();
    while (IsRunning() && RunCycle()) {
    }
    OnEnd();
}

void QudexOutput::ReportSent(time_point send_time) {
    m_figures.statistics->UpdateTsSent(send_time);
    m_figures.state->RecordSentSample(send_time);
}

DurationTelemetry::DurationTelemetry(const std::string& tag, const std::string& prefix) : m_prefix{prefix} {
    if (common::telegraf::TelemSender::HasCollector()) m_telem.Setup("rtc_performance", tag, "");
}

void DurationTelemetry::PublishFigures() {
    double max_us = 0.0;
    double mean_us = 0.0;
    double stddev_us = 0.0;
    m_duration.GetValues(max_us, mean_us, stddev_us);
    Publish(m_prefix + "max_ms", max_us / 1000.0);
    Publish(m_prefix + "mean_ms", mean_us / 1000.0);
    Publish(m_prefix + "stddev_ms", stddev_us / 1000.0);
}

SendPeriod::SendPeriod(const std::string& stream)
    : m_period{stream + "_output", stream + "_time_since_last_send_"} {}

void SendPeriod::RecordSent(defs::sample_id_t id, time_point send_time) {
    m_period.Update(send_time - m_last_send);
    m_last_send = send_time;
    if (id % TELEMETRY_STEP == 0) m_period.PublishFigures();
}

}  // namespace vosk::lumo
