#include <lumolib/m4Input.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/timeString.hpp>

namespace vosk::lumo {

namespace {

constexpr std::uint16_t PACKETS = 3;  // of a sample, in both streams

}  // namespace

M4Input::M4Input(const oru::configng::PliConfigInstanceNode& node)
    : QudexInput{"M4Input",
                 node,
                 PACKETS,
                 {log4cplus::WARN_LOG_LEVEL,
                  "M4Input::Work(): ReceiveSample: ", RuntimeMonitor::GetInstance().m_m4_input_state}},
      m_sync{WaitableExchange<M4InputDataSync>(m_busy)},
      m_statistics{RuntimeMonitor::GetInstance().m_m4_statistics} {}

void M4Input::OnSample(const defs::M4SetpointApplied::Payload& payload, const pktwire::qudex::Packet& first,
                       time_point now) {
    const auto id = first.SampleId();
    const time_point packet_time = first.Timestamp();
    m_sync->SetData(payload, id, packet_time);
    if (common::GetLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) {
        common::LogTrace("\t-> Received M4 setpoint applied at {}, sample_id = {}, qudex_ts = {}",
                         GetTimeString(now), id, GetTimeString(packet_time));
    }
    m_statistics->UpdateTsReceived(now);
}

M4FeedbackInput::M4FeedbackInput(const oru::configng::PliConfigInstanceNode& node)
    : QudexInput{"M4FeedbackInput",
                 node,
                 PACKETS,
                 {log4cplus::TRACE_LOG_LEVEL, "M4Feedback::Work(): ReceiveSample: ", nullptr}},
      m_sync{Exchange<AoM4CapSensActDataSync>()} {}

void M4FeedbackInput::OnSample(const defs::M4Feedback::Payload& payload, const pktwire::qudex::Packet& first,
                               time_point /*now*/) {
    CheckCounter(payload.counter);
    m_sync->SetData(payload, first.SampleId(), first.Timestamp());
}

// The own counter isn't set right after a loss, so that the log goes on saying that samples were lost.
void M4FeedbackInput::CheckCounter(std::uint32_t counter) {
    if (m_counter == 0) {
        m_counter = counter;
        return;
    }
    ++m_counter;
    if (m_counter != counter) {
        common::LogWarn("M4FeedbackInput::Work(): difference in counter value: ( {} != {} )", m_counter,
                        counter);
    }
}

}  // namespace vosk::lumo
