#pragma once

// The thread that sends `am:setpoint` to M4: it takes the setpoint that AoTasks prepared, waits for its
// planned moment and sends it as three packets. It doesn't decide that moment; it guards it against lateness.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/lumoRxTx.hpp>
#include <lumolib/lumoThread.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/statistics.hpp>

#include <atomclk/atomClk.hpp>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <oru/configng/pliConfig.hpp>
#include <vosk/common/telegraf/telemSender.hpp>
#include <vosk/defs/valueTypes.hpp>
#include <vosk/defs/wireRecords.hpp>

namespace vosk::lumo {

class M4Output : public TxThread, public TxQudex {
public:
    // Also tells AoTasks, through M4OutputDataSync, the grid on which setpoints are to leave.
    explicit M4Output(const oru::configng::PliConfigInstanceNode& node);

    // How far a send time may lie in the past.
    static std::chrono::microseconds Configure(const oru::configng::PliConfigInstanceNode& node);

protected:
    void Work(std::promise<void>& started) override;
    // One setpoint, from the wait for it to the report on it. False: the thread was stopped while it waited.
    bool RunCycle();

private:
    using time_point = atomclk::AtomClk::time_point;

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
    void PublishSendPeriod(const Setpoint& setpoint);
    void Report(const Setpoint& setpoint, defs::FloatVectorTT tip_tilt);

    const std::chrono::microseconds m_max_lateness;
    std::shared_ptr<M4OutputDataSync> m_sync;

    // Worker thread only. m_wire is sent in place.
    defs::M4Setpoint::Payload m_wire{};
    common::telegraf::SHMTelemSender m_telem;
    StatisticsDuration m_send_period;
    time_point m_last_send{};
    std::optional<defs::sample_id_t> m_taken_id;  // of the setpoint taken last

    const std::shared_ptr<StatisticsBuffered> m_statistics;
    const std::shared_ptr<OutputStreamState> m_stream_state;
    const std::shared_ptr<CommandCounts> m_counts;
};

}  // namespace vosk::lumo
