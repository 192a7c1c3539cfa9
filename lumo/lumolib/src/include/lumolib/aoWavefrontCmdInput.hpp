#pragma once

// The thread that receives the wavefront commands of the instrument, the clock of the INS-driven modes. It
// hands each command to AoTasks, and wakes the AO output with the command's time stamps, valid or not. One
// that could do harm counts as not valid.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/lumoRxTx.hpp>
#include <lumolib/lumoThread.hpp>
#include <lumolib/runtimeMonitor.hpp>

#include <array>
#include <future>
#include <memory>
#include <oru/configng/pliConfig.hpp>
#include <system_error>
#include <vosk/defs/wireRecords.hpp>

namespace vosk::lumo {

class AoWavefrontCmdInput : public RxThread, public RxLspx {
public:
    explicit AoWavefrontCmdInput(const oru::configng::PliConfigInstanceNode& node);

protected:
    struct Buffers {
        defs::AoWavefrontCmdStream::ExtInfo::Header header{};
        defs::AoWavefrontCmdStream::Payload payload{};
    };

    void Work(std::promise<void>& started) override;
    // One receive call and what follows from it.
    void RunCycle(Buffers& buffers);

private:
    using LeaderPacket = pktwire::lspx::Receiver::LeaderPacket;
    using TrailerPacket = pktwire::lspx::Receiver::TrailerPacket;

    void OnError(const std::error_code& error, time_point now);
    void OnSample(const LeaderPacket& leader, const TrailerPacket& trailer, Buffers& buffers,
                  time_point receive_time);
    static const char* FaultOf(const LeaderPacket& leader, const Buffers& buffers);
    void KeepPair(const LeaderPacket& leader, Buffers& buffers);

    const std::shared_ptr<AoTasksInsDataSync> m_ins_sync;
    const std::shared_ptr<AoOutputDataSync> m_output_sync;
    const std::shared_ptr<StatisticsBuffered> m_statistics;
    const std::shared_ptr<InputStreamState> m_stream_state;
    const std::shared_ptr<CommandCounts> m_counts;
    std::array<float, defs::TIP_TILT_SIZE> m_last_pair{};  // worker thread only
};

}  // namespace vosk::lumo
