#pragma once

// The thread that reads, on a grid of its own, what the field-stabilisation flowgraph answers, and spreads it
// to MS, PFS, M5 and the tip/tilt input of AoTasks. Without a new record the last values go out again, so
// that what stands behind keeps its pace.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/flowgraphThread.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/streamOutput.hpp>

#include <vosk/defs/shmRecords.hpp>

#include <chrono>
#include <cstdint>
#include <future>
#include <memory>

namespace vosk::lumo {

class FieldStabilizationOutput
    : public FlowgraphThread<common::shmif::FieldStablizationTopicOut, common::shmif::ShmReaderRT> {
public:
    struct Config {
        std::chrono::milliseconds update_interval;  // also bounds one read
        std::chrono::microseconds update_offset;
    };

    // Keys: those of the base, and the above.
    explicit FieldStabilizationOutput(const oru::configng::PliConfigInstanceNode& node);

    static Config Configure(const oru::configng::PliConfigInstanceNode& node);

protected:
    void Work(std::promise<void>& started) override;
    // One grid point, from the read to the telemetry. False: the thread was stopped while it read.
    bool RunCycle(time_point grid_point, std::uint32_t cycle);

    void OutputMsData();
    void OutputPfsData();
    void OutputM5Data();
    void OutputM4Data();
    void PublishTelemetry();

private:
    // Whether a new, usable record came before the next grid point.
    bool Receive(time_point next);

    const Config m_config;
    const std::shared_ptr<MSOutputDataSync> m_ms_sync;
    const std::shared_ptr<PfsOutputDataSync> m_pfs_sync;
    const std::shared_ptr<M5OutputDataSync> m_m5_sync;
    const std::shared_ptr<AoTasksFsDataSync> m_fs_sync;
    const std::shared_ptr<AoFieldStabilizationU4DataSync> m_u4_sync;
    const std::shared_ptr<StatisticsBuffered> m_statistics;
    const std::shared_ptr<OutputStreamState> m_stream_state;
    const std::shared_ptr<CommandCounts> m_counts;

    // Worker thread only.
    std::uint32_t m_sample_id_mismatch = 0;
    std::uint32_t m_no_data = 0;
    DurationTelemetry m_delay{"field_stabilization", "in_out_latency_"};
};

}  // namespace vosk::lumo
