#include <lumolib/aoWavefrontCmdInput.hpp>

#include <lumolib/dataSyncManager.hpp>
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
    : LspxInput{"AoWfCmdInput",
                node,
                {},
                QudexDefaults(node),
                LspxDefaults(),
                {log4cplus::WARN_LOG_LEVEL,
                 "ReceiveSample: error: ", RuntimeMonitor::GetInstance().m_ao_wavefront_cmd_state}},
      m_ins_sync{WaitableExchange<AoTasksInsDataSync>(m_busy)},
      m_output_sync{WaitableExchange<AoOutputDataSync>(m_busy)},
      m_statistics{RuntimeMonitor::GetInstance().m_ao_statistics},
      m_counts{RuntimeMonitor::GetInstance().m_command_counts} {
    RequireForm(node, sizeof(float), sizeof(m_buffers->header));
}

AoWavefrontCmdInput::Received AoWavefrontCmdInput::Receive() {
    return m_lspx_receiver->ReceiveSample(gsl::as_writable_bytes(gsl::span{&m_buffers->header, 1}),
                                          gsl::as_writable_bytes(gsl::span{&m_buffers->payload, 1}), {},
                                          m_timeout);
}

// A command that could do harm goes on as one whose valid bit is clear, and one without a usable time as one
// that was sent when it came: the AO output keeps its beat, and field stabilisation its reference.
void AoWavefrontCmdInput::OnSample(const Leader& leader, const Trailer& trailer, time_point receive_time) {
    auto& [header, payload] = *m_buffers;
    const auto id = trailer.SampleId();
    const bool has_time = IsUsable(trailer.Timestamp(), receive_time);
    const time_point command_time = has_time ? trailer.Timestamp() : receive_time;
    if (IsValid(header)) {
        const char* fault = has_time ? FaultOf(leader) : "its time is out of range";
        if (fault) {
            common::LogWarn("ReceiveSample: unusable wavefront command, sample_id = {}: {}{}", id, fault,
                            has_time ? "" : DistanceText(trailer.Timestamp(), receive_time));
            header.flags &= static_cast<std::uint8_t>(~defs::AoWavefrontCmdStream::ExtInfo::VALID);
        }
    }

    KeepPair(leader);
    const bool valid = IsValid(header);
    // AoTasks clears the flag when it has taken a command. Only valid ones are stored, in the modes they
    // pace.
    if (valid && m_ins_sync->IsDataReady() &&
        defs::IsInsDriven(VoskTelescopeStateManager::GetCurrentControlMode()))
        m_counts->overwritten_commands.fetch_add(1, std::memory_order_relaxed);
    m_ins_sync->SetData(payload, header, id, command_time);
    m_output_sync->SetData(AoWavefrontCmdTimestamps{command_time, receive_time}, id, atomclk::AtomClk::now());
    if (valid) {
        m_statistics->Update(command_time, receive_time);
        m_account.RecordValid(receive_time);
    } else {
        m_account.RecordInvalid(receive_time);
    }
    if (common::GetLogger().isEnabledFor(log4cplus::DEBUG_LOG_LEVEL)) {
        common::LogDebug("\t-> Received AO wavefront command at {}, sample_id = {}, valid = {}",
                         GetTimeString(receive_time), id, valid);
    }
}

const char* AoWavefrontCmdInput::FaultOf(const Leader& leader) const {
    if (leader.NumUnits() != m_buffers->payload.command.size()) return "it has another size";
    if (!common::math::AllFinite(m_buffers->payload.command)) return "a value is not finite";
    return nullptr;
}

// The first pair is stored whatever the mode and the valid bit: where there is none, the last one stays.
void AoWavefrontCmdInput::KeepPair(const Leader& leader) {
    const auto pair = std::span{m_buffers->payload.command}.first<defs::TIP_TILT_SIZE>();
    if (leader.NumUnits() == m_buffers->payload.command.size() && common::math::AllFinite(pair)) {
        std::ranges::copy(pair, m_last_pair.begin());
    } else {
        std::ranges::copy(m_last_pair, pair.begin());
    }
}

}  // namespace vosk::lumo
