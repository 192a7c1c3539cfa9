#include <lumolib/aoOutput.hpp>

#include <lumolib/dataSyncManager.hpp>
#include <lumolib/utilities.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/common/timeString.hpp>

#include <mutex>
#include <shared_mutex>
#include <utility>

namespace vosk::lumo {

using defs::AoCommandSource;
using oru::configng::Attempt;
using oru::configng::PliConfigInstanceNode;

namespace {

constexpr std::chrono::microseconds LOCKED_BEFORE_SEND{10};

std::string Describe(const PliConfigInstanceNode& node) {
    const auto topic = [&](const char* stream) {
        std::string text;
        Attempt(node[stream], [&] { text = GetParam<std::string>(node[stream], "qudex_topic"); });
        return text;
    };
    return fmt::format(
        "AO QUDEX sender for topic IDs = {} (ao:m5_ptt_act), {} (ao:field_stabilization_u4), {} "
        "(ao:m4_setpoint_applied), {} (ao:m4_cap_sens_act)",
        topic("m5_ptt_act"), topic("fs_u4"), topic("m4_setpoint_applied"), topic("m4_cap_sens_act"));
}

// The units of a stream's payload are floats in host order.
template <class Stream>
std::unique_ptr<TxLspx> MakeEndpoint(const PliConfigInstanceNode& node, const char* stream,
                                     std::uint16_t num_frames, std::pmr::memory_resource* memory) {
    pktwire::UdpTxSocket::Config udp{};
    udp.ip.src = GetIpv4Param(node, "default_ip_src", pktwire::Ipv4());
    pktwire::qudex::Sender::Config qudex{};
    qudex.num_frames = num_frames;
    pktwire::lspx::Sender::Config lspx{};
    lspx.source = pktwire::lspx::OTHER_SOURCE;
    lspx.endianness = pktwire::lspx::LITTLE_ENDIAN_UNITS;
    lspx.leader_extended_info_size = sizeof(typename Stream::ExtInfo::Header);
    lspx.frame_size = sizeof(typename Stream::Payload) / sizeof(float);
    std::unique_ptr<TxLspx> endpoint;
    Attempt(node[stream], [&] {
        endpoint = std::make_unique<TxLspx>(node[stream], udp, qudex, lspx, memory, std::nullopt);
    });
    return endpoint;
}

}  // namespace

AoOutput::AoOutput(const PliConfigInstanceNode& node)
    : Thread{"AoOutput", node, Describe(node)},
      m_config{Configure(node)},
      m_output_sync{WaitableExchange<AoOutputDataSync>(m_busy)},
      m_m5_sync{Exchange<AoM5PttActDataSync>()},
      m_fs_sync{Exchange<AoFieldStabilizationU4DataSync>()},
      m_applied_sync{Exchange<AoM4SetpointAppliedDataSync>()},
      m_cap_sync{Exchange<AoM4CapSensActDataSync>()},
      m_m5_tx{MakeEndpoint<defs::AoM5PttAct>(node, "m5_ptt_act", 3, MemoryResource())},
      m_fs_tx{MakeEndpoint<defs::AoFieldStabilizationU4>(node, "fs_u4", 3, MemoryResource())},
      m_applied_tx{MakeEndpoint<defs::AoM4SetpointApplied>(node, "m4_setpoint_applied", 5, MemoryResource())},
      m_cap_tx{MakeEndpoint<defs::AoM4CapSensAct>(node, "m4_cap_sens_act", 5, MemoryResource())},
      m_statistics{RuntimeMonitor::GetInstance().m_ao_statistics},
      m_stream_state{RuntimeMonitor::GetInstance().m_ao_output_state},
      m_counts{RuntimeMonitor::GetInstance().m_command_counts} {}

AoOutput::Config AoOutput::Configure(const PliConfigInstanceNode& node) {
    const auto delay = [&](const char* stream) {
        std::chrono::microseconds value{0};
        Attempt(node[stream], [&] { value = GetBoundedDurationParam(node[stream], "send_delay"); });
        return value;
    };
    return {.m5_ptt_act = delay("m5_ptt_act"),
            .fs_u4 = delay("fs_u4"),
            .m4_setpoint_applied = delay("m4_setpoint_applied"),
            .m4_cap_sens_act = delay("m4_cap_sens_act")};
}

void AoOutput::Work(std::promise<void>& started) {
    PassBeats();  // those from before a restart are no news
    started.set_value();
    while (IsRunning() && RunCycle()) {
    }
}

bool AoOutput::RunCycle() {
    const auto synchronizer = m_output_sync->GetSynchronizer();
    if (!synchronizer->Wait(m_running)) return false;
    AoWavefrontCmdTimestamps beat{};
    id_t id{};
    {
        const std::shared_lock lock{m_output_sync->GetMutex()};
        if (!m_output_sync->IsNewData()) {  // the notification of a beat that was dropped
            m_output_sync->ClearDataReady();
            return true;
        }
        beat = m_output_sync->GetDataRef();
        id = m_output_sync->GetSampleId();
    }
    const auto m5_time = beat.command_time + m_config.m5_ptt_act;
    const auto fs_time = beat.command_time + m_config.fs_u4;
    const auto applied_time = beat.command_time + m_config.m4_setpoint_applied;
    const auto cap_time = beat.command_time + m_config.m4_cap_sens_act;
    SendAoM5PttActData(m5_time, id, beat.receive_time);
    SendAoFieldStabilizationU4Data(fs_time, id);
    const auto source = SendAoM4SetpointAppliedData(applied_time, id, beat.receive_time);
    SendAoM4CapSensActData(cap_time, id);
    m_counts->dropped_beats.fetch_add(PassBeats() - 1, std::memory_order_relaxed);
    if (common::GetLogger().isEnabledFor(log4cplus::DEBUG_LOG_LEVEL)) {
        common::LogDebug(
            "\t-> Sent AO data, sample_id = {}, cmd_source = {} at:\n\tm5_ptt_act: {},  fs_u4: {},  "
            "m4_setpoint_applied: {},  m4_cap_sens_act: {}",
            id, to_string(source), GetTimeString(m5_time), GetTimeString(fs_time),
            GetTimeString(applied_time), GetTimeString(cap_time));
    }
    m_statistics->UpdateTsSent(m5_time);
    m_stream_state->RecordSentSample(m5_time);
    return true;
}

// A beat that came during the sends would go out late, and keep its successor from going in time.
std::uint32_t AoOutput::PassBeats() {
    const std::shared_lock lock{m_output_sync->GetMutex()};
    m_output_sync->ClearDataReady();
    const std::uint32_t number = m_output_sync->GetDataRef().number;
    return number - std::exchange(m_beats, number);
}

template <class Lock, class Sync, class Prepare>
bool AoOutput::SendRecord(Sync& sync, TxLspx& tx, const char* topic, time_point send_time, id_t id,
                          const Prepare& prepare) {
    if (!WaitUntil(send_time - LOCKED_BEFORE_SEND)) return false;
    const Lock lock{sync.GetMutex()};
    auto& record = sync.GetDataRef();
    tx.LspxSender().SetSampleId(id);
    prepare(record);
    if (!WaitUntil(send_time)) return false;
    const std::error_code error = tx.LspxSender().SendSample(gsl::as_bytes(gsl::span{&record.header, 1}),
                                                             gsl::as_bytes(gsl::span{&record.payload, 1}), {},
                                                             send_time, std::nullopt, std::nullopt);
    if (!IsSent(error))
        common::LogWarn("AoOutput: SendSample({}): {} {}", topic, error.message(), error.value());
    sync.ClearNewData();
    return true;
}

void AoOutput::SendAoM5PttActData(time_point send_time, id_t id, time_point receive_time) {
    SendRecord<std::unique_lock<std::shared_mutex>>(
        *m_m5_sync, *m_m5_tx, "ao:m5_ptt_act", send_time, id,
        [&](auto& record) { record.header.receive_time = receive_time; });
}

void AoOutput::SendAoFieldStabilizationU4Data(time_point send_time, id_t id) {
    SendRecord<std::shared_lock<std::shared_mutex>>(*m_fs_sync, *m_fs_tx, "ao:field_stabilization_u4",
                                                    send_time, id, [](const auto& /*record*/) {});
}

AoCommandSource AoOutput::SendAoM4SetpointAppliedData(time_point send_time, id_t id,
                                                      time_point receive_time) {
    std::uint16_t status = 0;
    const bool is_sent = SendRecord<std::unique_lock<std::shared_mutex>>(
        *m_applied_sync, *m_applied_tx, "ao:m4_setpoint_applied", send_time, id, [&](auto& record) {
            record.header.receive_time = receive_time;
            status = record.header.status;
        });
    return is_sent ? defs::AoM4SetpointApplied::ExtInfo::SourceOf(status) : AoCommandSource::NONE;
}

void AoOutput::SendAoM4CapSensActData(time_point send_time, id_t id) {
    SendRecord<std::shared_lock<std::shared_mutex>>(*m_cap_sync, *m_cap_tx, "ao:m4_cap_sens_act", send_time,
                                                    id, [](const auto& /*record*/) {});
}

}  // namespace vosk::lumo
