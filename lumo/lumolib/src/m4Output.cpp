#include <lumolib/m4Output.hpp>

#include <array>
#include <cstddef>
#include <lumolib/dataSyncManager.hpp>
#include <lumolib/utilities.hpp>
#include <pktwire/iovsBuilder.hpp>
#include <span>
#include <vosk/common/logger.hpp>
#include <vosk/common/timeString.hpp>
#include <vosk/defs/byteOrder.hpp>

namespace vosk::lumo {

using atomclk::AtomClk;

M4Output::M4Output(const oru::configng::PliConfigInstanceNode& node)
    : QudexOutput{"M4Output",
                  node,
                  defs::M4Setpoint::SEGMENTS.size(),
                  0,
                  {RuntimeMonitor::GetInstance().m_m4_statistics,
                   RuntimeMonitor::GetInstance().m_m4_output_state}},
      m_max_lateness{Configure(node)},
      m_sync{WaitableExchange<M4OutputDataSync>(m_busy)},
      m_counts{RuntimeMonitor::GetInstance().m_command_counts} {
    if (m_qudex_cfg.num_frames != defs::M4Setpoint::SEGMENTS.size()) {
        Refuse(node, "num_frames",
               "ERR: " + node.GetPath() + ".num_frames must be 3, a setpoint goes out in three packets");
    }
    if (m_qudex_cfg.sample_size != 0 && m_qudex_cfg.sample_size != sizeof(m_wire)) {
        Refuse(node, "sample_size",
               fmt::format("ERR: {}.sample_size must be {}, that of a setpoint, or 0", node.GetPath(),
                           sizeof(m_wire)));
    }
    if (m_send_interval % std::chrono::milliseconds{1} != std::chrono::microseconds::zero()) {
        WarnOf(node, "send_interval",
               fmt::format("M4Output: send_interval is no whole number of milliseconds, setpoints are "
                           "planned on {} ms",
                           m_send_interval.count() / 1000));
    }
    m_sync->send_interval = std::chrono::duration_cast<std::chrono::milliseconds>(m_send_interval);
    m_sync->send_offset = m_send_offset;
}

std::chrono::microseconds M4Output::Configure(const oru::configng::PliConfigInstanceNode& /*node*/) {
    return std::chrono::microseconds{50};
}

// AoTasks has stopped before: a restart sends nothing of this run, and all of the next one.
void M4Output::OnEnd() {
    m_sync->ClearDataReady();
}

bool M4Output::RunCycle() {
    const auto synchronizer = m_sync->GetSynchronizer();
    if (!synchronizer->Wait(m_running)) return false;

    auto setpoint = TakeSetpoint();
    if (!setpoint || !PlanSend(*setpoint)) return true;
    const defs::FloatVectorTT tip_tilt{m_wire.setpoint[0], m_wire.setpoint[1]};
    if (!WaitUntil(setpoint->send_time)) return false;
    if (const time_point now = AtomClk::now(); now < setpoint->send_time) {
        Drop(*setpoint, now);  // the clock was set back
        return true;
    }
    SendSegments(*setpoint);
    m_send_period.RecordSent(setpoint->id, setpoint->send_time);
    Report(*setpoint, tip_tilt);
    return true;
}

// The bytes are swapped here, ahead of the wait, so that little is left to do when the moment has come.
std::optional<M4Output::Setpoint> M4Output::TakeSetpoint() {
    Setpoint setpoint{};
    const bool is_news =
        TakeNews(*m_sync, m_taken_id, [&](const auto& data, auto id, time_point handed_over) {
            setpoint = {id, data.send_time, handed_over};
            defs::ToWireOrder(data.setpoint, m_wire.setpoint);
            m_wire.valid = data.valid;
        });
    return is_news ? std::optional{setpoint} : std::nullopt;
}

bool M4Output::PlanSend(Setpoint& setpoint) {
    const time_point now = AtomClk::now();
    if (setpoint.send_time == time_point{}) {
        setpoint.send_time = now;
        return true;
    }
    if (setpoint.send_time >= now - m_max_lateness && !WasSetBack(setpoint.handed_over, now)) return true;
    Drop(setpoint, now);
    m_sync->ClearDataReady();
    return false;
}

void M4Output::Drop(const Setpoint& setpoint, time_point now) {
    common::LogError(
        "M4Output::Work(): Got 'am:setpoint' message with a send time that has already passed, diff = +{}, "
        "no data will be sent!",
        GetTimeString(now - setpoint.send_time));
    m_counts->late_setpoints.fetch_add(1, std::memory_order_relaxed);
}

void M4Output::SendSegments(const Setpoint& setpoint) {
    m_sender->SetSampleId(setpoint.id);
    const auto record = std::as_bytes(std::span{&m_wire, 1});
    for (const auto& segment : defs::M4Setpoint::SEGMENTS) {
        // Entry 0 is left to the library, for its header.
        std::array<gsl::span<const std::byte>, 3> iovs{};
        pktwire::detail::IovsBuilder<const std::byte> builder{iovs, 1};
        builder.Append({record.data() + segment.offset, segment.length});
        const std::error_code error = m_sender->SendPacket(std::move(builder), setpoint.send_time, 0);
        if (!IsSent(error)) {
            common::LogWarn("M4Output::Work(): SendPacket: {}", error.message());
            return;
        }
    }
}

void M4Output::Report(const Setpoint& setpoint, defs::FloatVectorTT tip_tilt) {
    if (common::GetLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) {
        common::LogTrace("\t-> Sent M4 setpoint at {} (meant to be sent at {}), sample_id = {}",
                         GetTimeString(AtomClk::now()), GetTimeString(setpoint.send_time), setpoint.id);
    }
    RuntimeMonitor::GetPerformanceData().SetU4FsTt(setpoint.send_time, tip_tilt.AsSpan());
    ReportSent(setpoint.send_time);
}

}  // namespace vosk::lumo
