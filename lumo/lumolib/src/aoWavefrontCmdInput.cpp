#include <lumolib/aoWavefrontCmdInput.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <lumolib/receiveLoop.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/math/finite.hpp>
#include <vosk/common/timeString.hpp>

namespace vosk::lumo {

namespace {

// Clocks of peers on one site agree far better.
constexpr std::chrono::seconds MAX_TIME_AHEAD{1};

// The topic has no default here.
pktwire::qudex::Receiver::Config QudexDefaults(const oru::configng::PliConfigInstanceNode& node) {
    pktwire::qudex::Receiver::Config config{};
    config.topic = static_cast<std::uint32_t>(node["qudex_topic"].As<int>());
    config.num_frames = 5;
    return config;
}

pktwire::lspx::Receiver::Config LspxDefaults() {
    pktwire::lspx::Receiver::Config config{};
    config.endianness = pktwire::lspx::LITTLE_ENDIAN_UNITS;
    config.leader_extended_info_size = sizeof(defs::AoWavefrontCmdStream::ExtInfo::Header);
    config.data_unit_size = sizeof(float);
    config.buf_samples = 2;
    return config;
}

// The buffer has one form; in another the values would be read wrong, or none would come at all.
void CheckForm(const pktwire::lspx::Receiver::Config& config, const std::string& path) {
    const auto refuse = [&path](const char* what) { common::LogAndThrow("ERR: " + path + what); };
    if (config.endianness != pktwire::lspx::LITTLE_ENDIAN_UNITS) refuse(".endianness must be LE");
    if (config.data_unit_size != sizeof(float)) refuse(".data_unit_size must be 4");
    if (config.leader_extended_info_size != sizeof(defs::AoWavefrontCmdStream::ExtInfo::Header))
        refuse(".leader_extended_info_size must be 4");
}

}  // namespace

AoWavefrontCmdInput::AoWavefrontCmdInput(const oru::configng::PliConfigInstanceNode& node)
    : RxThread{"AoWfCmdInput", node, "", std::chrono::microseconds{0}},
      RxLspx{node, {}, QudexDefaults(node), LspxDefaults(), MemoryResource(), m_description},
      m_ins_sync{DataSyncManager::GetInstance().GetOrRegisterDataSync<AoTasksInsDataSync>(
          AoTasksInsDataSync::InstanceTag::DEFAULT, m_busy)},
      m_output_sync{DataSyncManager::GetInstance().GetOrRegisterDataSync<AoOutputDataSync>(
          AoOutputDataSync::InstanceTag::DEFAULT, m_busy)},
      m_statistics{RuntimeMonitor::GetInstance().m_ao_statistics},
      m_stream_state{RuntimeMonitor::GetInstance().m_ao_wavefront_cmd_state} {
    CheckForm(m_lspx_cfg, node.GetPath());
}

void AoWavefrontCmdInput::Work(std::promise<void>& started) {
    const auto buffers = std::make_unique<Buffers>();
    started.set_value();
    while (IsRunning()) RunCycle(*buffers);
}

void AoWavefrontCmdInput::RunCycle(Buffers& buffers) {
    ReceiveLspxOnce(
        *m_lspx_receiver, gsl::as_writable_bytes(gsl::span{&buffers.header, 1}),
        gsl::as_writable_bytes(gsl::span{&buffers.payload, 1}), m_timeout,
        [this](const auto& error, auto now) { OnError(error, now); },
        [&](const auto& leader, const auto& trailer, auto now) { OnSample(leader, trailer, buffers, now); },
        [this](auto now) { m_stream_state->RecordInvalidSample(now); });
}

void AoWavefrontCmdInput::OnError(const std::error_code& error, time_point now) {
    common::LogWarn("ReceiveSample: error: {}", error.message());
    m_stream_state->RecordInvalidSample(now);
}

// The AO output is woken by every command that tells a usable time. A time far ahead would keep AoTasks and
// M4Output waiting for it; 0 is none.
void AoWavefrontCmdInput::OnSample(const LeaderPacket& leader, const TrailerPacket& trailer,
                                   const Buffers& buffers, time_point receive_time) {
    const time_point command_time = trailer.Timestamp();
    const auto id = trailer.SampleId();
    if (command_time <= time_point{} || command_time > receive_time + MAX_TIME_AHEAD)
        return OnFault("its time is out of range", id, receive_time);

    const char* fault = FaultOf(leader, buffers);
    if (!fault) m_ins_sync->SetData(buffers.payload, buffers.header, id, command_time);
    m_output_sync->SetData(AoWavefrontCmdTimestamps{command_time, receive_time}, id, atomclk::AtomClk::now());
    if (fault) return OnFault(fault, id, receive_time);

    const bool valid = (buffers.header.flags & defs::AoWavefrontCmdStream::ExtInfo::VALID) != 0;
    if (valid) {
        m_statistics->Update(command_time, receive_time);
        m_stream_state->RecordValidSample(receive_time);
    } else {
        m_stream_state->RecordInvalidSample(receive_time);
    }
    if (common::GetLogger().isEnabledFor(log4cplus::DEBUG_LOG_LEVEL)) {
        common::LogDebug("\t-> Received AO wavefront command at {}, sample_id = {}, valid = {}",
                         GetTimeString(receive_time), id, valid);
    }
}

// What would harm the mirror, or null. A short command leaves an older one in the rest of the buffer.
const char* AoWavefrontCmdInput::FaultOf(const LeaderPacket& leader, const Buffers& buffers) {
    if (leader.NumUnits() != buffers.payload.command.size()) return "it has another size";
    if (!common::math::AllFinite(buffers.payload.command)) return "a value is no number";
    return nullptr;
}

void AoWavefrontCmdInput::OnFault(const char* fault, defs::sample_id_t id, time_point receive_time) {
    common::LogWarn("ReceiveSample: unusable wavefront command, sample_id = {}: {}", id, fault);
    m_stream_state->RecordInvalidSample(receive_time);
}

}  // namespace vosk::lumo
