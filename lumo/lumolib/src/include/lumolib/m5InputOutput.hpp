#pragma once

// The threads that speak to M5, the tip/tilt mirror. Field stabilisation thinks in sky coordinates, M5 in its
// own: both threads rotate, by the pointing that the PFS measured last.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/streamInput.hpp>
#include <lumolib/streamOutput.hpp>

#include <vosk/defs/wireRecords.hpp>

#include <memory>
#include <optional>

namespace vosk::lumo {

// Where M5 is, in.
class M5Input : public QudexInput<defs::M5PttAct::Payload> {
public:
    explicit M5Input(const oru::configng::PliConfigInstanceNode& node);

    // Takes the lock of the pointing, shared.
    defs::FloatVectorTT ApplyM52Sky(const defs::FloatVectorTT& tt) const;

protected:
    void OnSample(const defs::M5PttAct::Payload& payload, const pktwire::qudex::Packet& first,
                  time_point now) override;

private:
    const std::shared_ptr<PfsTargetDataSync> m_target_sync;
    const std::shared_ptr<AoM5PttActDataSync> m_ao_sync;
    const std::shared_ptr<M5InputDataSync> m_m5_sync;
    const std::shared_ptr<StatisticsBuffered> m_statistics;
};

// The command of M5, out, at the next grid point after its time. One whose point has passed goes at once.
class M5Output : public QudexOutput {
public:
    explicit M5Output(const oru::configng::PliConfigInstanceNode& node);

    // Takes the lock of the pointing, shared.
    defs::FloatVectorTT ApplySky2m5(const defs::FloatVectorTT& tt) const;

protected:
    bool RunCycle() override;
    void OnEnd() override;

private:
    void Report(time_point send_time, defs::sample_id_t id, const defs::FloatVectorTT& sky,
                const defs::FloatVectorTT& m5);

    const std::shared_ptr<PfsTargetDataSync> m_target_sync;
    const std::shared_ptr<M5OutputDataSync> m_sync;
    // Worker thread only.
    SendPeriod m_send_period{"m5"};
    std::optional<defs::sample_id_t> m_taken_id;
};

}  // namespace vosk::lumo
