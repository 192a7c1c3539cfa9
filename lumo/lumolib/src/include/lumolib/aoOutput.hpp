#pragma once

// The thread that tells the instrument what the telescope did: once a wavefront command, at fixed delays
// after its time stamp, four samples of what their exchange objects hold at that moment. The command gives
// the beat alone.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/lumoRxTx.hpp>
#include <lumolib/lumoThread.hpp>
#include <lumolib/runtimeMonitor.hpp>

#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <string>

namespace vosk::lumo {

class AoOutput : public Thread {
public:
    // Send delays.
    struct Config {
        std::chrono::microseconds m5_ptt_act;
        std::chrono::microseconds fs_u4;
        std::chrono::microseconds m4_setpoint_applied;
        std::chrono::microseconds m4_cap_sens_act;
    };

    // Keys: `default_ip_src`, and the maps `m5_ptt_act`, `fs_u4`, `m4_setpoint_applied`, `m4_cap_sens_act`,
    // each with the keys of TxLspx, a `send_delay` and a `qudex_topic`.
    explicit AoOutput(const oru::configng::PliConfigInstanceNode& node);

    static Config Configure(const oru::configng::PliConfigInstanceNode& node);

protected:
    void Work(std::promise<void>& started) override;
    // One beat, from the wait for it to the report. False: the thread was stopped while it waited.
    bool RunCycle();

private:
    using id_t = defs::sample_id_t;

    // Each waits for its send time and sends its record in place, under the record's lock, which it takes 10
    // us before. At a stop nothing is sent.
    void SendAoM5PttActData(time_point send_time, id_t id, time_point receive_time);
    void SendAoFieldStabilizationU4Data(time_point send_time, id_t id);
    defs::AoCommandSource SendAoM4SetpointAppliedData(time_point send_time, id_t id, time_point receive_time);
    void SendAoM4CapSensActData(time_point send_time, id_t id);

    // prepare(record) runs under the lock, ahead of the last wait. False: stopped.
    template <class Lock, class Sync, class Prepare>
    bool SendRecord(Sync& sync, TxLspx& tx, const char* topic, time_point send_time, id_t id,
                    const Prepare& prepare);
    // Clears the flags of the beats, and gives how many there were since it last did.
    std::uint32_t PassBeats();

    const Config m_config;
    const std::shared_ptr<AoOutputDataSync> m_output_sync;
    const std::shared_ptr<AoM5PttActDataSync> m_m5_sync;
    const std::shared_ptr<AoFieldStabilizationU4DataSync> m_fs_sync;
    const std::shared_ptr<AoM4SetpointAppliedDataSync> m_applied_sync;
    const std::shared_ptr<AoM4CapSensActDataSync> m_cap_sync;
    const std::unique_ptr<TxLspx> m_m5_tx;
    const std::unique_ptr<TxLspx> m_fs_tx;
    const std::unique_ptr<TxLspx> m_applied_tx;
    const std::unique_ptr<TxLspx> m_cap_tx;
    const std::shared_ptr<StatisticsBuffered> m_statistics;
    const std::shared_ptr<OutputStreamState> m_stream_state;
    const std::shared_ptr<CommandCounts> m_counts;
    std::uint32_t m_beats = 0;  // worker thread only; the number of the last beat passed
};

}  // namespace vosk::lumo
