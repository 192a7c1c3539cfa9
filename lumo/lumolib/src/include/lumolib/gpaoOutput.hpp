#pragma once

// The thread that takes each command of the GPAO flowgraph, projects it to INS modal space and hands it to
// AoTasks, whose pace it is in the modes with GPAO tip/tilt. GpaoInput gets the command as it came.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/flowgraphThread.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/streamOutput.hpp>

#include <vosk/defs/shmRecords.hpp>

#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace vosk::lumo {

class GpaoOutput : public FlowgraphThread<common::shmif::GpaoTopicOut, common::shmif::ShmReaderRT> {
public:
    static constexpr std::size_t GPAO2INS_SIZE = defs::GPAO_CMD_SIZE * defs::INS_CMD_SIZE;

    struct Config {
        std::chrono::microseconds timeout;  // of a read, after which the run flag is looked at
        std::string gpao2ins_path;
    };

    // Keys: those of the base, and the above.
    explicit GpaoOutput(const oru::configng::PliConfigInstanceNode& node);

    static Config Configure(const oru::configng::PliConfigInstanceNode& node);

    // A matrix of NAXIS1 = 4866 by NAXIS2 = 52: in memory a row of 4866 for each GPAO mode.
    static std::vector<float> LoadGpao2Ins(const std::string& path);

    // ins[j] = sum over i of gpao2ins[i * 4866 + j] * gpao[i]
    static void ProjectionGpao2Ins(std::span<const float, GPAO2INS_SIZE> gpao2ins,
                                   std::span<const float, defs::GPAO_CMD_SIZE> gpao,
                                   std::span<float, defs::INS_CMD_SIZE> ins);

protected:
    void Work(std::promise<void>& started) override;
    // One read and what follows from it.
    void RunCycle();

    void OutputM4SetpointGpaoData();
    void PrintErrorState(std::uint32_t increase) const;
    void PublishTelemetry();

private:
    bool Receive();

    const Config m_config;
    std::vector<float> m_gpao2ins;
    const std::shared_ptr<AoTasksGpaoDataSync> m_tasks_sync;
    const std::shared_ptr<GpaoM4SetpointGpaoDataSync> m_gpao_sync;
    const std::shared_ptr<CommandCounts> m_counts;

    // Worker thread only.
    const std::unique_ptr<GpaoM4SetpointData> m_gpao_command = std::make_unique<GpaoM4SetpointData>();
    std::uint32_t m_counter = 0;  // records received: the ID that the next one is expected to follow
    std::uint32_t m_sample_id_mismatch = 0;
    DurationTelemetry m_delay{"gpao", "gpao_latency_"};
};

}  // namespace vosk::lumo
