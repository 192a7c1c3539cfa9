#include <lumolib/pfsMsInputOutput.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <lumolib/resamplerManager.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/timeString.hpp>

namespace vosk::lumo {

using signal_processing::DefaultDataAccessor;
using signal_processing::NoDataAccessor;

namespace {

template <class Sample, class Accessor>
auto ResamplerOf(const oru::configng::PliConfigInstanceNode& node) {
    return ResamplerManager::GetInstance().GetOrRegisterResampler<Sample, Accessor>(node, "resampler", 0,
                                                                                    false);
}

template <class Sample>
auto PlainResamplerOf(const oru::configng::PliConfigInstanceNode& node) {
    return ResamplerOf<Sample, NoDataAccessor<Sample>>(node);
}

pfs::GuideProbeCorrection CorrectionOf(time_point time, const defs::FloatVectorTT& tt, bool flag) {
    return {time, tt.tip, tt.tilt, flag ? 1U : 0U};
}

}  // namespace

PfsInput::PfsInput(const oru::configng::PliConfigInstanceNode& node)
    : QudexInput{"PfsInput",
                 node,
                 1,
                 {log4cplus::ERROR_LOG_LEVEL,
                  "PfsInput: ReceiveSample(): ", RuntimeMonitor::GetInstance().m_pfs_input_state}},
      m_resampler{PlainResamplerOf<defs::SampleData<PfsInputData>>(node)},
      m_input_sync{Exchange<PfsInputDataSync>()},
      m_target_sync{Exchange<PfsTargetDataSync>()},
      m_statistics{RuntimeMonitor::GetInstance().m_pfs_statistics} {}

void PfsInput::OnSample(const pfs::PFSTargetData& target, const pktwire::qudex::Packet& first,
                        time_point now) {
    const auto id = first.SampleId();
    const time_point packet_time = first.Timestamp();
    const auto& [one, two, three] = target.guide_probes;
    const auto& pointing = target.pointing.values;
    if (CanGoOn({one.tip, one.tilt, one.value, two.tip, two.tilt, two.value, three.tip, three.tilt,
                 three.value, pointing[4]},
                m_name, id))
        m_input_sync->SetData(target, id, packet_time);
    if (CanGoOn({pointing[0], pointing[1]}, m_name, id))  // M5 would be commanded by it
        m_target_sync->SetData(target.pointing, id, packet_time);
    if (common::GetLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) {
        common::LogTrace("\tReceived PFS measurement data at {}, sample_id = {}", GetTimeString(now), id);
    }
    m_statistics->UpdateTsReceived(now);
}

PfsOutput::PfsOutput(const oru::configng::PliConfigInstanceNode& node)
    : ResampledOutput{"PfsOutput",
                      node,
                      sizeof(pfs::PFSCorrection),
                      {RuntimeMonitor::GetInstance().m_pfs_statistics,
                       RuntimeMonitor::GetInstance().m_pfs_output_state}} {
    m_resampler = PlainResamplerOf<defs::SampleData<PfsOutputData>>(node);
    m_sync = WaitableExchange<PfsOutputDataSync>(m_busy);
}

void PfsOutput::Take(const PfsOutputData& record, defs::SampleData<PfsOutputData>& sample) {
    sample.data = record;
    m_centering = VoskTelescopeStateManager::GetGPCenteringEnabled();
}

void PfsOutput::SendSample(const defs::SampleData<PfsOutputData>& sample, time_point send_time) {
    pfs::PFSCorrection correction;
    for (std::size_t i = 0; i < pfs::GP_COUNT; ++i) {
        correction.guide_probes[i] = CorrectionOf(sample.timestamp, sample.data.gp_tt[i], m_centering);
    }
    const std::error_code error = Send(correction, sample.sample_id, send_time);
    if (!IsSent(error)) common::LogWarn("PfsOutput: SendSample(): {} {}", error.message(), error.value());
    if (common::GetLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) {
        common::LogTrace("\t-> Sent PFS correction at {}, sample_id = {}", GetTimeString(send_time),
                         sample.sample_id);
    }
    for (std::size_t i = 0; i < pfs::GP_COUNT; ++i) {
        const auto shown = m_centering ? sample.data.gp_tt[i] : defs::FloatVectorTT{};
        RuntimeMonitor::GetPerformanceData().SetGpCmd(static_cast<pfs::GPID>(i), send_time, shown.AsSpan(),
                                                      m_centering);
    }
    ReportSent(send_time);
}

MSOutput::MSOutput(const oru::configng::PliConfigInstanceNode& node)
    : ResampledOutput{
          "MSOutput",
          node,
          sizeof(defs::MSCorrection),
          {RuntimeMonitor::GetInstance().m_ms_statistics, RuntimeMonitor::GetInstance().m_ms_output_state}} {
    m_sync = WaitableExchange<MSOutputDataSync>(m_busy);
    m_resampler = ResamplerOf<MsOutputSample, DefaultDataAccessor<MsOutputSample, float>>(node);
}

void MSOutput::SendSample(const MsOutputSample& sample, time_point send_time) {
    const std::error_code error = Send(CorrectionOf(send_time, sample.tt, true), sample.sample_id, send_time);
    if (!IsSent(error)) {
        common::LogWarn("MsOutput: SendSample(): {} {}", error.message(), error.value());
    } else if (common::GetLogger().isEnabledFor(log4cplus::TRACE_LOG_LEVEL)) {
        common::LogTrace("\t-> Sent MS correction at {} (meant to be sent at {}), sample_id = {}",
                         GetTimeString(atomclk::AtomClk::now()), GetTimeString(send_time), sample.sample_id);
    }
    RuntimeMonitor::GetPerformanceData().SetMsFsTt(send_time, sample.tt.AsSpan());
    ReportSent(send_time);
}

}  // namespace vosk::lumo
