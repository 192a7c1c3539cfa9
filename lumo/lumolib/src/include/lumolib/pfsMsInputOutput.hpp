#pragma once

// The threads that speak to the PFS and the MS: PfsInput receives the measurement of the PFS, PfsOutput and
// MSOutput send corrections, which pass through a resampler of their own.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/streamInput.hpp>
#include <lumolib/streamOutput.hpp>

#include <vosk/defs/wireRecords.hpp>

#include <memory>

namespace vosk::lumo {

// The values of the guide probes go to field stabilisation, the pointing to the M5 threads.
class PfsInput : public QudexInput<pfs::PFSTargetData> {
public:
    // Key: `resampler`, which must name a definition; nothing else is done with it.
    explicit PfsInput(const oru::configng::PliConfigInstanceNode& node);

protected:
    void OnSample(const pfs::PFSTargetData& target, const pktwire::qudex::Packet& first,
                  time_point now) override;

private:
    const std::shared_ptr<signal_processing::Resampler<defs::SampleData<PfsInputData>>> m_resampler;
    const std::shared_ptr<PfsInputDataSync> m_input_sync;
    const std::shared_ptr<PfsTargetDataSync> m_target_sync;
    const std::shared_ptr<StatisticsBuffered> m_statistics;
};

// The correction carries the time of its sample, and whether guide-probe centering was on when it was taken.
class PfsOutput : public ResampledOutput<defs::SampleData<PfsOutputData>, PfsOutputDataSync> {
public:
    // Key: `resampler`.
    explicit PfsOutput(const oru::configng::PliConfigInstanceNode& node);

protected:
    void Take(const PfsOutputData& record, defs::SampleData<PfsOutputData>& sample) override;
    void SendSample(const defs::SampleData<PfsOutputData>& sample, time_point send_time) override;

private:
    bool m_centering = false;  // worker thread only; of the samples in work
};

// The correction carries its send time.
class MSOutput : public ResampledOutput<MsOutputSample, MSOutputDataSync> {
public:
    // Key: `resampler`.
    explicit MSOutput(const oru::configng::PliConfigInstanceNode& node);

protected:
    void Take(const defs::FloatVectorTT& record, MsOutputSample& sample) override { sample.tt = record; }
    void SendSample(const MsOutputSample& sample, time_point send_time) override;
};

}  // namespace vosk::lumo
