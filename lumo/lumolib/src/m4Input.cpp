#include <lumolib/m4Input.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <lumolib/receiveLoop.hpp>
#include <memory>
#include <vosk/common/logger.hpp>
#include <vosk/common/timeString.hpp>

namespace vosk::lumo {

namespace {

// Both streams cut a sample into three packets.
pktwire::qudex::Receiver::Config QudexDefaults() {
    pktwire::qudex::Receiver::Config config{};
    config.num_frames = 3;
    return config;
}

}  // namespace

M4Input::M4Input(const oru::configng::PliConfigInstanceNode& node)
    : RxThread{"M4Input", node, "", std::chrono::microseconds{0}},
      RxQudex{node, {}, QudexDefaults(), MemoryResource(), m_description},
      m_sync{DataSyncManager::GetInstance().GetOrRegisterDataSync<M4InputDataSync>(
          M4InputDataSync::InstanceTag::DEFAULT, m_busy)},
      m_statistics{RuntimeMonitor::GetInstance().m_m4_statistics},
      m_stream_state{RuntimeMonitor::GetInstance().m_m4_input_state} {}

void M4Input::Work(std::promise<void>& started) {
    m_receiver->Restart();
    started.set_value();
    while (IsRunning()) RunCycle();
}

void M4Input::RunCycle() {
    ReceiveQudexOnce(
        *m_receiver, gsl::as_writable_bytes(gsl::span{&m_payload, 1}), m_timeout,
        [this](const auto& error, auto now) { OnError(error, now); },
        [this](const auto& packet, auto now) { OnSample(packet, now); },
        [this](auto now) { m_stream_state->RecordInvalidSample(now); });
}

void M4Input::OnError(const std::error_code& error, time_point now) {
    common::LogWarn("M4Input::Work(): ReceiveSample: {}", error.message());
    m_stream_state->RecordInvalidSample(now);
    ReportLosses(*m_receiver, *m_stream_state);
}

void M4Input::OnSample(const pktwire::qudex::Packet& packet, time_point now) {
    const auto id = packet.SampleId();
    const time_point packet_time = packet.Timestamp();
    m_sync->SetData(m_payload, id, packet_time);
    if (common::GetLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) {
        common::LogTrace("\t-> Received M4 setpoint applied at {}, sample_id = {}, qudex_ts = {}",
                         GetTimeString(now), id, GetTimeString(packet_time));
    }
    m_statistics->UpdateTsReceived(now);
    m_stream_state->RecordValidSample(now);
    ReportLosses(*m_receiver, *m_stream_state);
}

M4FeedbackInput::M4FeedbackInput(const oru::configng::PliConfigInstanceNode& node)
    : RxThread{"M4FeedbackInput", node, "", std::chrono::microseconds{0}},
      RxQudex{node, {}, QudexDefaults(), MemoryResource(), m_description},
      m_sync{DataSyncManager::GetInstance().GetOrRegisterDataSync<AoM4CapSensActDataSync>(
          AoM4CapSensActDataSync::InstanceTag::DEFAULT)} {}

void M4FeedbackInput::Work(std::promise<void>& started) {
    const auto payload = std::make_unique<defs::M4Feedback::Payload>();
    m_receiver->Restart();
    m_counter = 0;
    started.set_value();
    while (IsRunning()) RunCycle(*payload);
}

void M4FeedbackInput::RunCycle(defs::M4Feedback::Payload& payload) {
    ReceiveQudexOnce(
        *m_receiver, gsl::as_writable_bytes(gsl::span{&payload, 1}), m_timeout,
        [](const auto& error, auto) { OnError(error); },
        [&](const auto& packet, auto) { OnSample(packet, payload); }, [](auto) {});
}

// The text of an error is made only where it is wanted.
void M4FeedbackInput::OnError(const std::error_code& error) {
    if (!common::GetLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) return;
    common::LogTrace("M4Feedback::Work(): ReceiveSample: {}", error.message());
}

void M4FeedbackInput::OnSample(const pktwire::qudex::Packet& packet,
                               const defs::M4Feedback::Payload& payload) {
    CheckCounter(payload.counter);
    m_sync->SetData(payload, packet.SampleId(), packet.Timestamp());
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
