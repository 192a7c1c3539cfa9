#pragma once

// The thread that samples, on a fixed grid, all that field stabilisation needs, and hands it to the flowgraph
// as one record. It waits for no input: one without news keeps its last value in the record and counts an
// error.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/flowgraphThread.hpp>
#include <lumolib/resamplerManager.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/simSourceManager.hpp>

#include <vosk/defs/shmRecords.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <span>

namespace vosk::lumo {

class FieldStabilizationInput
    : public FlowgraphThread<common::shmif::FieldStablizationTopicIn, common::shmif::ShmWriterRT> {
public:
    using Resampler = CentroidResampler;
    using Pair = std::span<float, defs::TIP_TILT_SIZE>;

    struct Config {
        std::chrono::microseconds timeout;  // of a write
        std::chrono::milliseconds update_interval;
        std::chrono::microseconds update_offset;
        bool loopback_m5_output;  // M5 from its command, not from its feedback
        bool loopback_m4_output;  // M4 tip/tilt from the field stabilisation output, not from what M4 applied
        bool centroid_sim_enabled;  // the simulator takes the place of the cameras, if it is enabled
    };

    // Keys: those of the base, the above, and `cent_err_resampler`.
    explicit FieldStabilizationInput(const oru::configng::PliConfigInstanceNode& node);

    static Config Configure(const oru::configng::PliConfigInstanceNode& node);

protected:
    void Work(std::promise<void>& started) override;
    // One grid point, from the inputs to the telemetry.
    void RunCycle(time_point grid_point);

    // Each gives whether its input had news.
    bool ProcessImgCentErrData(const std::shared_ptr<Resampler>& resampler, Pair pair);
    bool ProcessWfsTtErrorData(const std::shared_ptr<Resampler>& resampler, Pair pair);
    bool ProcessPfsInputData();
    bool ProcessM5InputData();
    bool ProcessFsRefData();
    bool GetSimCentroids();

    void UpdateErrorState(const FsInputFlags& flags);
    void PrintErrorState(std::uint32_t increase) const;
    void PublishTelemetry();

private:
    static bool ProcessCentroid(Resampler& resampler, Pair pair, const char* text);
    void ProcessCameras(FsInputFlags& flags);

    const Config m_config;
    std::array<std::shared_ptr<Resampler>, 8> m_resamplers;  // IMG GP1, GP2, GP3, PDS, WFS GP1, GP2, GP3, PDS
    const std::shared_ptr<PfsInputDataSync> m_pfs_sync;
    const std::shared_ptr<M5InputDataSync> m_m5_sync;
    const std::shared_ptr<FsRefDataSync> m_fs_ref_sync;
    std::shared_ptr<M5OutputDataSync> m_m5_output_sync;   // null without loopback
    std::shared_ptr<AoTasksFsDataSync> m_fs_output_sync;  // null without loopback
    const std::shared_ptr<StatisticsBuffered> m_statistics;
    const std::shared_ptr<OutputStreamState> m_stream_state;
    const std::shared_ptr<CommandCounts> m_counts;
    std::array<std::uint32_t, FS_INPUT_SOURCES> m_errors{};  // worker thread only; by FsInputSource
    const std::unique_ptr<SimulatedCentroids> m_simulated;   // null unless enabled
};

}  // namespace vosk::lumo
