#include <lumolib/m5InputOutput.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/math/m5Geometry.hpp>
#include <vosk/common/timeString.hpp>

#include <mutex>
#include <shared_mutex>

namespace vosk::lumo {

namespace {

constexpr double SKY_PER_M5 = 1.0;

using Rotation = defs::FloatVectorTT (*)(double, double, double, double, double, double) noexcept;

defs::FloatVectorTT Apply(Rotation rotation, const defs::FloatVectorTT& tt, PfsTargetDataSync& target) {
    const double latitude = VoskTelescopeStateManager::GetLatitude();
    const auto pointing = target.GetData().values;
    return rotation(tt.tip, tt.tilt, pointing[0], pointing[1], latitude, SKY_PER_M5);
}

}  // namespace

M5Input::M5Input(const oru::configng::PliConfigInstanceNode& node)
    : QudexInput{"M5Input",
                 node,
                 1,
                 {log4cplus::WARN_LOG_LEVEL,
                  "M5Input::Work(): ReceiveSample: ", RuntimeMonitor::GetInstance().m_m5_input_state}},
      m_target_sync{Exchange<PfsTargetDataSync>()},
      m_ao_sync{Exchange<AoM5PttActDataSync>()},
      m_m5_sync{Exchange<M5InputDataSync>()},
      m_statistics{RuntimeMonitor::GetInstance().m_m5_statistics} {}

defs::FloatVectorTT M5Input::ApplyM52Sky(const defs::FloatVectorTT& tt) const {
    return Apply(common::math::applyM52Sky, tt, *m_target_sync);
}

void M5Input::OnSample(const defs::M5PttAct::Payload& payload, const pktwire::qudex::Packet& first,
                       time_point now) {
    const auto id = first.SampleId();
    if (CanGoOn({payload.tip, payload.tilt}, m_name, id)) {
        const auto sky = ApplyM52Sky({static_cast<float>(payload.tip), static_cast<float>(payload.tilt)});
        m_m5_sync->SetData(sky, id, now);
    }
    m_ao_sync->SetData(payload, id, first.Timestamp());
    if (common::GetLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) {
        common::LogTrace("\tReceived M5 setpoint applied at {}, sample_id = {}", GetTimeString(now), id);
    }
    m_statistics->UpdateTsReceived(now);
}

M5Output::M5Output(const oru::configng::PliConfigInstanceNode& node)
    : QudexOutput{"M5Output",
                  node,
                  1,
                  sizeof(defs::M5Command::Payload),
                  {RuntimeMonitor::GetInstance().m_m5_statistics,
                   RuntimeMonitor::GetInstance().m_m5_output_state}},
      m_target_sync{Exchange<PfsTargetDataSync>()},
      m_sync{WaitableExchange<M5OutputDataSync>(m_busy)} {}

defs::FloatVectorTT M5Output::ApplySky2m5(const defs::FloatVectorTT& tt) const {
    return Apply(common::math::applySky2M5, tt, *m_target_sync);
}

// FieldStabilizationOutput has stopped before: a restart sends nothing of this run.
void M5Output::OnEnd() {
    m_sync->ClearDataReady();
}

bool M5Output::RunCycle() {
    const auto synchronizer = m_sync->GetSynchronizer();
    if (!synchronizer->Wait(m_running)) return false;
    defs::FloatVectorTT sky;
    defs::sample_id_t id{};
    time_point time{};
    const auto take = [&](const auto& tt, auto sample_id, auto timestamp) {
        sky = tt;
        id = sample_id;
        time = timestamp;
    };
    if (!TakeNews(*m_sync, m_taken_id, take)) return true;

    const auto m5 = ApplySky2m5(sky);
    const defs::M5Command::Payload command{0.0, m5.tip, m5.tilt};
    const time_point send_time = SendTime(time);
    if (!WaitUntil(send_time)) return false;
    const std::error_code error = Send(command, id, send_time);
    m_send_period.RecordSent(id, send_time);
    if (!IsSent(error)) common::LogWarn("M5Output: SendSample(): {} {}", error.message(), error.value());
    Report(send_time, id, sky, m5);
    return true;
}

void M5Output::Report(time_point send_time, defs::sample_id_t id, const defs::FloatVectorTT& sky,
                      const defs::FloatVectorTT& m5) {
    if (common::GetLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) {
        common::LogTrace("\t-> Sent M5 setpoint at {} (meant to be sent at {}), sample_id = {}",
                         GetTimeString(atomclk::AtomClk::now()), GetTimeString(send_time), id);
    }
    RuntimeMonitor::GetPerformanceData().SetU5FsTt(send_time, sky.AsSpan(), m5.AsSpan());
    ReportSent(send_time);
}

}  // namespace vosk::lumo
