#pragma once

// The thread that receives the wavefront commands of the instrument, the clock of the INS-driven modes. It
// hands each command to AoTasks, and wakes the AO output with the command's time stamps, valid or not. One
// that could do harm counts as not valid.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/streamInput.hpp>

#include <array>
#include <memory>
#include <oru/configng/pliConfig.hpp>
#include <vosk/defs/wireRecords.hpp>

namespace vosk::lumo {

class AoWavefrontCmdInput : public LspxInput {
public:
    explicit AoWavefrontCmdInput(const oru::configng::PliConfigInstanceNode& node);

protected:
    Received Receive() override;
    void OnSample(const Leader& leader, const Trailer& trailer, time_point now) override;

private:
    struct Buffers {
        defs::AoWavefrontCmdStream::ExtInfo::Header header{};
        defs::AoWavefrontCmdStream::Payload payload{};
    };

    // What would harm the mirror, or null. A short command leaves an older one in the rest of the buffer.
    const char* FaultOf(const Leader& leader) const;
    void KeepPair(const Leader& leader);

    const std::shared_ptr<AoTasksInsDataSync> m_ins_sync;
    const std::shared_ptr<AoOutputDataSync> m_output_sync;
    const std::shared_ptr<StatisticsBuffered> m_statistics;
    const std::shared_ptr<CommandCounts> m_counts;
    // Worker thread only.
    const std::unique_ptr<Buffers> m_buffers = std::make_unique<Buffers>();
    std::array<float, defs::TIP_TILT_SIZE> m_last_pair{};
};

}  // namespace vosk::lumo
