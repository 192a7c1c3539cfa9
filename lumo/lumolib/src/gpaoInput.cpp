#include <lumolib/gpaoInput.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <vosk/common/calibrationFile.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/math/blas.hpp>

#include <mutex>
#include <shared_mutex>

namespace vosk::lumo {

namespace {

constexpr defs::sample_id_t TELEMETRY_STEP = 500;

}  // namespace

GpaoInput::GpaoInput(const oru::configng::PliConfigInstanceNode& node)
    : FlowgraphThread{"GpaoInput", node, "gpao_in_telem", TELEMETRY_STEP},
      m_config{Configure(node)},
      m_applied_sync{Exchange<GpaoM4SetpointAppliedDataSync>()},
      m_gpao_sync{Exchange<GpaoM4SetpointGpaoDataSync>()},
      m_coefficients_sync{WaitableExchange<GpaoCoefficientsDataSync>(m_busy)} {
    oru::configng::Attempt(node["ins2gpao_path"], [&] { m_ins2gpao = LoadIns2Gpao(m_config.ins2gpao_path); });
}

GpaoInput::Config GpaoInput::Configure(const oru::configng::PliConfigInstanceNode& node) {
    return {.timeout = GetNonNegativeDurationParam(node, "timeout"),
            .ins2gpao_path = GetParam<std::string>(node, "ins2gpao_path")};
}

std::vector<float> GpaoInput::LoadIns2Gpao(const std::string& path) {
    return common::LoadFiniteMatrix<>(path, defs::GPAO_CMD_SIZE, defs::M4_CMD_SIZE, "Ins2Gpao");
}

void GpaoInput::ProjectionIns2Gpao(std::span<const float, INS2GPAO_SIZE> ins2gpao,
                                   std::span<const float, defs::M4_CMD_SIZE> applied,
                                   std::span<float, defs::GPAO_CMD_SIZE> gpao) {
    common::math::cblas_MultiplyMatrixByVector(CblasTrans, 1.0F, ins2gpao, applied, 0.0F, gpao);
}

void GpaoInput::Work(std::promise<void>& started) {
    m_record.sample_id = 0;
    m_coefficients_sync->ClearDataReady();  // those of a former run are no news
    started.set_value();
    while (IsRunning() && RunCycle()) {
    }
}

bool GpaoInput::RunCycle() {
    const auto synchronizer = m_coefficients_sync->GetSynchronizer();
    if (!synchronizer->Wait(m_running)) return false;
    m_record.timestamp = atomclk::AtomClk::now();
    const bool coefficients_ok = [this] {
        const std::shared_lock lock{m_coefficients_sync->GetMutex()};
        const bool is_new = m_coefficients_sync->IsNewData();
        m_record.coefficients = m_coefficients_sync->GetDataRef().modes;
        m_coefficients_sync->ClearDataReady();
        return is_new;
    }();
    ++m_record.sample_id;
    const bool applied_ok = ProcessM4SetpointAppliedData();
    const bool gpao_ok = ProcessM4SetpointGpaoData();
    m_channel->TimedSend(&m_record, m_config.timeout);
    UpdateErrorState(coefficients_ok, applied_ok, gpao_ok);
    PublishTelemetry();
    SendDiagnostics();
    return true;
}

// The lock covers the projection: AoTasks writes the next answer a cycle later at the earliest.
bool GpaoInput::ProcessM4SetpointAppliedData() {
    const std::shared_lock lock{m_applied_sync->GetMutex()};
    const bool is_new = m_applied_sync->IsNewData();
    if (is_new) {
        ProjectionIns2Gpao(std::span<const float, INS2GPAO_SIZE>{m_ins2gpao},
                           m_applied_sync->GetDataRef().setpoint, m_record.applied_m4_cmd);
    }
    m_applied_sync->ClearNewData();
    return is_new;
}

bool GpaoInput::ProcessM4SetpointGpaoData() {
    const std::shared_lock lock{m_gpao_sync->GetMutex()};
    const bool is_new = m_gpao_sync->IsNewData();
    if (is_new) m_record.last_gpao_cmd = m_gpao_sync->GetDataRef().command;
    m_gpao_sync->ClearNewData();
    return is_new;
}

void GpaoInput::UpdateErrorState(bool coefficients, bool applied, bool gpao) {
    const auto increase = CountErrors({coefficients, applied, gpao}, m_errors);
    if (increase > 0) PrintErrorState(increase);
}

void GpaoInput::PrintErrorState(std::uint32_t increase) const {
    common::LogDebug(
        "GpaoInput: Error state counters increased by {}, current values:\n\tCoefficients Input = {}\n\tM4 "
        "Setpoint Applied Input = {}\n\tM4 Setpoint GPAO Input = {}\n",
        increase, m_errors[0], m_errors[1], m_errors[2]);
}

void GpaoInput::PublishTelemetry() {
    if (IsSampled()) SendTelemetry();
}

}  // namespace vosk::lumo
