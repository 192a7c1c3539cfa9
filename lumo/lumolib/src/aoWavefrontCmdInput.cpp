#include <lumolib/aoWavefrontCmdInput.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <lumolib/receiveLoop.hpp>
#include <lumolib/utilities.hpp>
#include <lumolib/voskTelescopeStateManager.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/math/finite.hpp>
#include <vosk/common/timeString.hpp>

#include <algorithm>
#include <cmath>
#include <span>
#include <string>

namespace vosk::lumo {

namespace {

constexpr int MIN_FRAMES = 3;

// Clocks of peers on one site agree far better.
constexpr std::chrono::seconds MAX_TIME_AHEAD{1};

// The topic has no default here.
pktwire::qudex::Receiver::Config QudexDefaults(const oru::configng::PliConfigInstanceNode& node) {
    pktwire::qudex::Receiver::Config config{};
    config.topic = static_cast<std::uint32_t>(GetParam<int>(node, "qudex_topic"));
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

// The buffers have one form; in another the values would be read wrong, or none would come at all.
void CheckForm(const oru::configng::PliConfigInstanceNode& node,
               const pktwire::qudex::Receiver::Config& qudex, const pktwire::lspx::Receiver::Config& lspx) {
    const auto require = [&node](bool is_good, const char* key, const char* form) {
        if (!is_good) Refuse(node, key, fmt::format("ERR: {}.{} {}", node.GetPath(), key, form));
    };
    require(qudex.num_frames >= MIN_FRAMES, "num_frames", "must be at least 3: leader, payload, trailer");
    require(lspx.endianness == pktwire::lspx::LITTLE_ENDIAN_UNITS, "endianness", "must be LE");
    require(lspx.data_unit_size == sizeof(float), "data_unit_size", "must be 4");
    require(lspx.leader_extended_info_size == sizeof(defs::AoWavefrontCmdStream::ExtInfo::Header),
            "leader_extended_info_size", "must be 4");
    require(lspx.trailer_extended_info_size == 0, "trailer_extended_info_size", "must be 0");
}

// 0 is no time, which means at once. One far ahead would keep AoTasks, M4Output and the AO output waiting for
// it.
bool IsUsable(time_point command_time, time_point receive_time) {
    return command_time >= time_point{} && command_time <= receive_time + MAX_TIME_AHEAD;
}

// In floating point, as the distance of a wild time fits no duration.
std::string DistanceText(time_point command_time, time_point receive_time) {
    const auto seconds = [](time_point time) {
        return std::chrono::duration<double>(time.time_since_epoch()).count();
    };
    const double distance = seconds(command_time) - seconds(receive_time);
    return fmt::format(", {:.3f} s {}", std::abs(distance),
                       distance > 0 ? "ahead of our clock" : "behind our clock");
}

bool IsValid(const defs::AoWavefrontCmdStream::ExtInfo::Header& header) {
    return (header.flags & defs::AoWavefrontCmdStream::ExtInfo::VALID) != 0;
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
      m_stream_state{RuntimeMonitor::GetInstance().m_ao_wavefront_cmd_state},
      m_counts{RuntimeMonitor::GetInstance().m_command_counts} {
    CheckForm(node, m_qudex_cfg, m_lspx_cfg);
}

void AoWavefrontCmdInput::Work(std::promise<void>& started) {
    const auto buffers = std::make_unique<Buffers>();
    m_lspx_receiver->Restart();
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
    ReportLosses(*m_lspx_receiver, *m_stream_state);
}

// A command that could do harm goes on as one whose valid bit is clear, and one without a usable time as one
// that was sent when it came: the AO output keeps its beat, and field stabilisation its reference.
void AoWavefrontCmdInput::OnSample(const LeaderPacket& leader, const TrailerPacket& trailer, Buffers& buffers,
                                   time_point receive_time) {
    const auto id = trailer.SampleId();
    const bool has_time = IsUsable(trailer.Timestamp(), receive_time);
    const time_point command_time = has_time ? trailer.Timestamp() : receive_time;
    if (IsValid(buffers.header)) {
        const char* fault = has_time ? FaultOf(leader, buffers) : "its time is out of range";
        if (fault) {
            common::LogWarn("ReceiveSample: unusable wavefront command, sample_id = {}: {}{}", id, fault,
                            has_time ? "" : DistanceText(trailer.Timestamp(), receive_time));
            buffers.header.flags &= static_cast<std::uint8_t>(~defs::AoWavefrontCmdStream::ExtInfo::VALID);
        }
    }

    KeepPair(leader, buffers);
    const bool valid = IsValid(buffers.header);
    // AoTasks clears the flag when it has taken a command. Only valid ones are stored, in the modes they
    // pace.
    if (valid && m_ins_sync->IsDataReady() &&
        defs::IsInsDriven(VoskTelescopeStateManager::GetCurrentControlMode()))
        m_counts->overwritten_commands.fetch_add(1, std::memory_order_relaxed);
    m_ins_sync->SetData(buffers.payload, buffers.header, id, command_time);
    m_output_sync->SetData(AoWavefrontCmdTimestamps{command_time, receive_time}, id, atomclk::AtomClk::now());
    if (valid) {
        m_statistics->Update(command_time, receive_time);
        m_stream_state->RecordValidSample(receive_time);
    } else {
        m_stream_state->RecordInvalidSample(receive_time);
    }
    ReportLosses(*m_lspx_receiver, *m_stream_state);
    if (common::GetLogger().isEnabledFor(log4cplus::DEBUG_LOG_LEVEL)) {
        common::LogDebug("\t-> Received AO wavefront command at {}, sample_id = {}, valid = {}",
                         GetTimeString(receive_time), id, valid);
    }
}

// What would harm the mirror, or null. A short command leaves an older one in the rest of the buffer.
const char* AoWavefrontCmdInput::FaultOf(const LeaderPacket& leader, const Buffers& buffers) {
    if (leader.NumUnits() != buffers.payload.command.size()) return "it has another size";
    if (!common::math::AllFinite(buffers.payload.command)) return "a value is not finite";
    return nullptr;
}

// The first pair is stored whatever the mode and the valid bit: where there is none, the last one stays.
void AoWavefrontCmdInput::KeepPair(const LeaderPacket& leader, Buffers& buffers) {
    const auto pair = std::span{buffers.payload.command}.first<defs::TIP_TILT_SIZE>();
    if (leader.NumUnits() == buffers.payload.command.size() && common::math::AllFinite(pair)) {
        std::ranges::copy(pair, m_last_pair.begin());
    } else {
        std::ranges::copy(m_last_pair, pair.begin());
    }
}

}  // namespace vosk::lumo
