#pragma once

// The one place where worker threads leave figures about their streams. Nothing in the library reads them
// back; the host polls them at a rate of its own. Threads take copies of the pointers they need in their
// constructors, which run after CreateInstance. The objects outlive the threads, so that the last figures
// stay readable.

#include <lumolib/commandCounts.hpp>
#include <lumolib/frameFigures.hpp>
#include <lumolib/performanceData.hpp>
#include <lumolib/stateData.hpp>
#include <lumolib/statistics.hpp>
#include <lumolib/streamState.hpp>

#include <gim/config.hpp>
#include <oru/configng/pliConfig.hpp>
#include <vosk/defs/controlMode.hpp>

#include <array>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace vosk::lumo {

class RuntimeMonitor {
public:
    RuntimeMonitor(const RuntimeMonitor&) = delete;
    RuntimeMonitor& operator=(const RuntimeMonitor&) = delete;

    // Until CreateInstance it holds the performance and state data and the counts, and no streams.
    static RuntimeMonitor& GetInstance();

    // Set-up only, before any thread object exists: fresh objects for everything. The configuration isn't
    // read. m_statistics and m_stream_states keep the objects of former calls at their front.
    static RuntimeMonitor& CreateInstance(const gim::Config& config);

    // Set-up only, after CreateInstance. Reads the optional map `statistics` of the instance node: stream
    // names (m4, ao, img_gp1 ..., as the m_..._statistics below) with their nominal periods, "2 ms", and
    // enables those. Throws std::runtime_error on a name that isn't there and on a period that isn't
    // positive.
    static void EnableStatistics(const oru::configng::PliConfigInstanceNode& cfg);

    // What one camera's thread reports into.
    struct CameraFigures {
        std::shared_ptr<Statistics> statistics;
        std::shared_ptr<InputStreamState> state;
        std::shared_ptr<FrameFigures> frames;
    };
    CameraFigures Of(defs::Camera camera) const;

    static PerformanceData& GetPerformanceData();
    static StateData& GetStateData();

    // Zeroes the stream states, the figures of frames, the performance data and the counts, and leaves the
    // statistics and the state data alone. Call while no worker runs.
    void Reset();

    std::shared_ptr<PerformanceData> m_performance_data;
    std::shared_ptr<StateData> m_state_data;
    std::shared_ptr<CommandCounts> m_command_counts;

    std::shared_ptr<Statistics> m_img_gp1_statistics;
    std::shared_ptr<Statistics> m_wfs_gp1_statistics;
    std::shared_ptr<Statistics> m_img_gp2_statistics;
    std::shared_ptr<Statistics> m_wfs_gp2_statistics;
    std::shared_ptr<Statistics> m_img_gp3_statistics;
    std::shared_ptr<Statistics> m_wfs_gp3_statistics;
    std::shared_ptr<Statistics> m_img_pds_statistics;
    std::shared_ptr<Statistics> m_wfs_pds_statistics;
    std::shared_ptr<StatisticsBuffered> m_fs_statistics;
    std::shared_ptr<StatisticsBuffered> m_m4_statistics;
    std::shared_ptr<StatisticsBuffered> m_m5_statistics;
    std::shared_ptr<StatisticsBuffered> m_pfs_statistics;
    std::shared_ptr<StatisticsBuffered> m_ms_statistics;
    std::shared_ptr<StatisticsBuffered> m_ao_statistics;
    std::shared_ptr<StatisticsBuffered> m_ecmwf_statistics;

    std::shared_ptr<InputStreamState> m_img_gp1_state;
    std::shared_ptr<InputStreamState> m_wfs_gp1_state;
    std::shared_ptr<InputStreamState> m_img_gp2_state;
    std::shared_ptr<InputStreamState> m_wfs_gp2_state;
    std::shared_ptr<InputStreamState> m_img_gp3_state;
    std::shared_ptr<InputStreamState> m_wfs_gp3_state;
    std::shared_ptr<InputStreamState> m_img_pds_state;
    std::shared_ptr<InputStreamState> m_wfs_pds_state;
    std::shared_ptr<InputStreamState> m_ao_wavefront_cmd_state;
    std::shared_ptr<InputStreamState> m_m4_input_state;
    std::shared_ptr<InputStreamState> m_m5_input_state;
    std::shared_ptr<InputStreamState> m_pfs_input_state;
    std::shared_ptr<InputStreamState> m_ecmwf_input_state;
    std::shared_ptr<OutputStreamState> m_ao_output_state;
    std::shared_ptr<OutputStreamState> m_m4_output_state;
    std::shared_ptr<OutputStreamState> m_m5_output_state;
    std::shared_ptr<OutputStreamState> m_ms_output_state;
    std::shared_ptr<OutputStreamState> m_fs_input_state;  // an output: it sends into the flowgraph
    std::shared_ptr<OutputStreamState> m_fs_output_state;
    std::shared_ptr<OutputStreamState> m_pfs_output_state;

    std::vector<std::shared_ptr<Statistics>> m_statistics;      // all of the above, in their order
    std::vector<std::shared_ptr<StreamState>> m_stream_states;  // all of the above, in their order

    std::array<std::shared_ptr<FrameFigures>, 8> m_frame_figures;  // by Camera; null until CreateInstance

private:
    static void EnableStatisticsOf(const std::string& name,
                                   const oru::configng::PliConfigInstanceNode& period);
    RuntimeMonitor();

    struct CameraRow;
    struct StreamRow;
    static std::span<const CameraRow> CameraRows();
    static std::span<const StreamRow> StreamRows();

    void MakeStatistics();
    void MakeStreamStates();
    std::shared_ptr<Statistics> StatisticsOf(
        const std::string& name) const;  // a key of `statistics`; or null
};

}  // namespace vosk::lumo
