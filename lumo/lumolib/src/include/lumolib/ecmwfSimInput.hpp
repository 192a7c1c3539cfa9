#pragma once

// The thread that receives simulated centroid errors, and feeds them into the resamplers of the imaging
// cameras: field stabilisation sees them as if they were measured. It and such a camera are not both
// configured.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/resamplerManager.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/streamInput.hpp>

#include <vosk/defs/wireRecords.hpp>

#include <array>
#include <memory>

namespace vosk::lumo {

class ECMWFSimInput : public QudexInput<defs::WfsPayload> {
public:
    // Key: `cent_err_resampler`.
    explicit ECMWFSimInput(const oru::configng::PliConfigInstanceNode& node);

protected:
    void OnSample(const defs::WfsPayload& payload, const pktwire::qudex::Packet& first,
                  time_point now) override;

private:
    const std::shared_ptr<EcmWfSimDataSync> m_sync;
    std::array<std::shared_ptr<CentroidResampler>, 4> m_resamplers;  // GP1, GP2, GP3, PDS
    const std::shared_ptr<StatisticsBuffered> m_statistics;
};

}  // namespace vosk::lumo
