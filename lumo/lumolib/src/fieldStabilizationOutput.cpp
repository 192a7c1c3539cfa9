#include <lumolib/fieldStabilizationOutput.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <lumolib/timeGrid.hpp>
#include <vosk/common/logger.hpp>

#include <algorithm>
#include <cmath>

namespace vosk::lumo {

namespace {

constexpr defs::sample_id_t TELEMETRY_STEP = 500;

using Record = common::shmif::FieldStablizationTopicOut;

bool IsFinite(const defs::FloatVectorTT& tt) {
    return std::isfinite(tt.tip) && std::isfinite(tt.tilt);
}

bool CanBeSent(const Record& record, time_point now) {
    return IsUsable(record.timestamp, now) && IsUsable(record.input_timestamp, now) && IsFinite(record.m5) &&
           IsFinite(record.u4_tt) && IsFinite(record.ms) && std::ranges::all_of(record.pfs, IsFinite);
}

}  // namespace

FieldStabilizationOutput::FieldStabilizationOutput(const oru::configng::PliConfigInstanceNode& node)
    : FlowgraphThread{"FSOutput", node, "fs_out_telem", TELEMETRY_STEP},
      m_config{Configure(node)},
      m_ms_sync{WaitableExchange<MSOutputDataSync>(m_busy)},
      m_pfs_sync{WaitableExchange<PfsOutputDataSync>(m_busy)},
      m_m5_sync{WaitableExchange<M5OutputDataSync>(m_busy)},
      m_fs_sync{WaitableExchange<AoTasksFsDataSync>(m_busy)},
      m_u4_sync{Exchange<AoFieldStabilizationU4DataSync>()},
      m_statistics{RuntimeMonitor::GetInstance().m_fs_statistics},
      m_stream_state{RuntimeMonitor::GetInstance().m_fs_output_state},
      m_counts{RuntimeMonitor::GetInstance().m_command_counts} {}

FieldStabilizationOutput::Config FieldStabilizationOutput::Configure(
    const oru::configng::PliConfigInstanceNode& node) {
    return {.update_interval = GetUpdateInterval(node),
            .update_offset = GetBoundedDurationParam(node, "update_offset")};
}

void FieldStabilizationOutput::Work(std::promise<void>& started) {
    DropOldRecords();
    started.set_value();
    TimeGrid grid{m_config.update_interval, m_config.update_offset, atomclk::AtomClk::now()};
    std::uint32_t cycle = 0;
    while (IsRunning() && WaitUntil(grid.Point()) && RunCycle(grid.Point(), cycle)) {
        const auto skipped = grid.Advance(atomclk::AtomClk::now());
        m_counts->grid_points_skipped.fetch_add(skipped, std::memory_order_relaxed);
        ++cycle;
    }
}

bool FieldStabilizationOutput::RunCycle(time_point grid_point, std::uint32_t cycle) {
    m_record.timestamp = grid_point;
    const bool got = Receive(grid_point + m_config.update_interval);
    if (!IsRunning()) return false;
    if (got) {
        if (m_record.sample_id != cycle) ++m_sample_id_mismatch;
    } else {
        ++m_no_data;
        m_record.sample_id = cycle;
    }
    OutputMsData();
    OutputPfsData();
    OutputM5Data();
    OutputM4Data();
    auto& performance = RuntimeMonitor::GetPerformanceData();
    performance.UpdateFSOutput(grid_point, got);
    performance.SetTipTiltError(m_record.tt_error.tip, m_record.tt_error.tilt);
    m_statistics->UpdateTsSent(grid_point);
    m_stream_state->RecordSentSample(grid_point);
    PublishTelemetry();
    SendDiagnostics();
    return true;
}

// The read ends at the next grid point: without a flowgraph each cycle would else end a little later than the
// one before. A record that could do harm counts as none: no limit stands between it and M5, MS and PFS.
bool FieldStabilizationOutput::Receive(time_point next) {
    const std::chrono::nanoseconds left = next - atomclk::AtomClk::now();
    const auto limit = std::clamp<std::chrono::nanoseconds>(left, left.zero(), m_config.update_interval);
    Record received;
    if (!ReceiveWithin(limit, received)) return false;
    if (!CanBeSent(received, atomclk::AtomClk::now())) {
        m_counts->unusable_flowgraph_records.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    m_record = received;
    return true;
}

void FieldStabilizationOutput::OutputMsData() {
    m_ms_sync->SetData(m_record.ms, m_record.sample_id, m_record.timestamp);
}

void FieldStabilizationOutput::OutputPfsData() {
    m_pfs_sync->SetData(PfsOutputData{m_record.pfs}, m_record.sample_id, m_record.timestamp);
}

void FieldStabilizationOutput::OutputM5Data() {
    m_m5_sync->SetData(m_record.m5, m_record.sample_id, m_record.timestamp);
}

// Wakes AoTasks in the modes that field stabilisation paces.
void FieldStabilizationOutput::OutputM4Data() {
    const auto [tip, tilt] = m_record.u4_tt;
    m_fs_sync->SetData(tip, tilt, m_record.sample_id, GivenOrNow(m_record.timestamp));
    m_u4_sync->SetData(tip, tilt, m_record.sample_id, GivenOrNow(m_record.timestamp));
}

void FieldStabilizationOutput::PublishTelemetry() {
    m_delay.Update(m_record.timestamp - m_record.input_timestamp);
    if (!IsSampled()) return;
    SendTelemetry();
    m_delay.Publish("in_out_sample_diff", m_record.sample_id - m_record.input_sample_id);
    m_delay.PublishFigures();
    m_delay.Publish("in_out_period_ms", m_config.update_interval.count());
}

}  // namespace vosk::lumo
