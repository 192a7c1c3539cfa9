#pragma once

// The thread that sends `am:setpoint` to M4: it takes the setpoint that AoTasks prepared, waits for its
// planned moment and sends it as three packets. It doesn't decide that moment; it guards it against lateness.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/streamOutput.hpp>

#include <atomclk/atomClk.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <oru/configng/pliConfig.hpp>
#include <vosk/defs/valueTypes.hpp>
#include <vosk/defs/wireRecords.hpp>

namespace vosk::lumo {

class M4Output : public QudexOutput {
public:
    // Also tells AoTasks, through M4OutputDataSync, the grid on which setpoints are to leave.
    explicit M4Output(const oru::configng::PliConfigInstanceNode& node);

    // How far a send time may lie in the past.
    static std::chrono::microseconds Configure(const oru::configng::PliConfigInstanceNode& node);

protected:
    bool RunCycle() override;
    void OnEnd() override;

private:
    struct Setpoint {
        defs::sample_id_t id;
        time_point send_time;
        time_point handed_over;  // by AoTasks
    };

    // Nothing: the notification came late, of a setpoint that an earlier cycle has taken.
    std::optional<Setpoint> TakeSetpoint();
    // Settles when the setpoint goes. False: too late, or the clock was set back; the setpoint is dropped.
    bool PlanSend(Setpoint& setpoint);
    void Drop(const Setpoint& setpoint, time_point now);
    void SendSegments(const Setpoint& setpoint);
    void Report(const Setpoint& setpoint, defs::FloatVectorTT tip_tilt);

    const std::chrono::microseconds m_max_lateness;
    std::shared_ptr<M4OutputDataSync> m_sync;

    // Worker thread only. m_wire is sent in place.
    defs::M4Setpoint::Payload m_wire{};
    SendPeriod m_send_period{"m4"};
    std::optional<defs::sample_id_t> m_taken_id;  // of the setpoint taken last

    const std::shared_ptr<CommandCounts> m_counts;
};

}  // namespace vosk::lumo
