#pragma once

// The thread that hands each new set of coefficients of the active wavefront sensor to the GPAO flowgraph,
// with what M4 applied last and the last GPAO command, all in GPAO modal space. The coefficients set its
// pace.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/flowgraphThread.hpp>

#include <vosk/defs/shmRecords.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace vosk::lumo {

class GpaoInput : public FlowgraphThread<common::shmif::GpaoTopicIn, common::shmif::ShmWriterRT> {
public:
    static constexpr std::size_t INS2GPAO_SIZE = defs::M4_CMD_SIZE * defs::GPAO_CMD_SIZE;

    struct Config {
        std::chrono::microseconds timeout;  // of a write
        std::string ins2gpao_path;
    };

    // Keys: those of the base, and the above.
    explicit GpaoInput(const oru::configng::PliConfigInstanceNode& node);

    static Config Configure(const oru::configng::PliConfigInstanceNode& node);

    // A matrix of NAXIS1 = 52 by NAXIS2 = 5352: in memory a row of 52 for each element of a command of M4.
    static std::vector<float> LoadIns2Gpao(const std::string& path);

    // gpao[j] = sum over i of ins2gpao[i * 52 + j] * applied[i]
    static void ProjectionIns2Gpao(std::span<const float, INS2GPAO_SIZE> ins2gpao,
                                   std::span<const float, defs::M4_CMD_SIZE> applied,
                                   std::span<float, defs::GPAO_CMD_SIZE> gpao);

protected:
    void Work(std::promise<void>& started) override;
    // From the wait for coefficients to the telemetry. False: the thread was stopped while it waited.
    bool RunCycle();

    // Each gives whether its input had news.
    bool ProcessM4SetpointAppliedData();
    bool ProcessM4SetpointGpaoData();

    void UpdateErrorState(bool coefficients, bool applied, bool gpao);
    void PrintErrorState(std::uint32_t increase) const;
    void PublishTelemetry();

private:
    const Config m_config;
    std::vector<float> m_ins2gpao;
    const std::shared_ptr<GpaoM4SetpointAppliedDataSync> m_applied_sync;
    const std::shared_ptr<GpaoM4SetpointGpaoDataSync> m_gpao_sync;
    const std::shared_ptr<GpaoCoefficientsDataSync> m_coefficients_sync;
    std::array<std::uint32_t, 3> m_errors{};  // worker thread only; coefficients, applied, GPAO command
};

}  // namespace vosk::lumo
