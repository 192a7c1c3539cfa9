#include <lumolib/gpaoOutput.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <vosk/common/calibrationFile.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/math/blas.hpp>
#include <vosk/common/math/finite.hpp>

namespace vosk::lumo {

namespace {

constexpr defs::sample_id_t TELEMETRY_STEP = 50;

}  // namespace

GpaoOutput::GpaoOutput(const oru::configng::PliConfigInstanceNode& node)
    : FlowgraphThread{"GpaoOutput", node, "gpao_out_telem", TELEMETRY_STEP},
      m_config{Configure(node)},
      m_tasks_sync{WaitableExchange<AoTasksGpaoDataSync>(m_busy)},
      m_gpao_sync{Exchange<GpaoM4SetpointGpaoDataSync>()},
      m_counts{RuntimeMonitor::GetInstance().m_command_counts} {
    oru::configng::Attempt(node["gpao2ins_path"], [&] { m_gpao2ins = LoadGpao2Ins(m_config.gpao2ins_path); });
}

GpaoOutput::Config GpaoOutput::Configure(const oru::configng::PliConfigInstanceNode& node) {
    return {.timeout = GetNonNegativeDurationParamOr(node, "timeout", std::chrono::microseconds{1000}),
            .gpao2ins_path = GetParam<std::string>(node, "gpao2ins_path")};
}

std::vector<float> GpaoOutput::LoadGpao2Ins(const std::string& path) {
    return common::LoadFiniteMatrix<>(path, defs::INS_CMD_SIZE, defs::GPAO_CMD_SIZE, "Gpao2Ins");
}

void GpaoOutput::ProjectionGpao2Ins(std::span<const float, GPAO2INS_SIZE> gpao2ins,
                                    std::span<const float, defs::GPAO_CMD_SIZE> gpao,
                                    std::span<float, defs::INS_CMD_SIZE> ins) {
    common::math::cblas_MultiplyMatrixByVector(CblasTrans, 1.0F, gpao2ins, gpao, 0.0F, ins);
}

void GpaoOutput::Work(std::promise<void>& started) {
    m_counter = 0;
    DropOldRecords();
    started.set_value();
    while (IsRunning()) RunCycle();
}

void GpaoOutput::RunCycle() {
    if (!Receive() || !IsRunning()) return;
    ++m_counter;
    const bool is_expected = m_record.sample_id == m_counter;
    if (!is_expected) ++m_sample_id_mismatch;
    OutputM4SetpointGpaoData();
    if (!is_expected) PrintErrorState(1);
    PublishTelemetry();
    SendDiagnostics();
}

// A record that could do harm counts as none.
bool GpaoOutput::Receive() {
    common::shmif::GpaoTopicOut received;
    if (!ReceiveWithin(m_config.timeout, received)) return false;
    const auto now = atomclk::AtomClk::now();
    if (!IsUsable(received.timestamp, now) || !IsUsable(received.input_timestamp, now) ||
        !common::math::AllFinite(received.gpao_cmd)) {
        m_counts->unusable_flowgraph_records.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    m_record = received;
    return true;
}

void GpaoOutput::OutputM4SetpointGpaoData() {
    ProjectionGpao2Ins(std::span<const float, GPAO2INS_SIZE>{m_gpao2ins}, m_record.gpao_cmd,
                       m_gpao_command->command);
    m_gpao_command->status = 0;
    m_tasks_sync->SetData(*m_gpao_command, m_record.sample_id, m_record.timestamp);
    m_gpao_sync->SetData(GpaoM4SetpointGpao{m_record.gpao_cmd}, m_record.sample_id, m_record.timestamp);
}

void GpaoOutput::PrintErrorState(std::uint32_t increase) const {
    common::LogDebug(
        "GpaoOutput: Error state counters increased by {}, current values:\n\tSample ID mismatch = {}\n",
        increase, m_sample_id_mismatch);
}

void GpaoOutput::PublishTelemetry() {
    m_delay.Update(m_record.timestamp - m_record.input_timestamp);
    if (!IsSampled()) return;
    SendTelemetry();
    m_delay.Publish("gpao_sample_diff", m_record.sample_id - m_record.input_sample_id);
    m_delay.PublishFigures();
}

}  // namespace vosk::lumo
