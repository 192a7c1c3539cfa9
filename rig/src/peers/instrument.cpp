#include "peers/instrument.hpp"

#include "peers/loopback.hpp"

#include <fmt/format.h>
#include <nodepin/nodepin.hpp>

namespace vosk::rig {
namespace {

constexpr std::uint32_t TOPIC = 401;
constexpr const char* HOST_STREAM = "AO_WAVEFRONT_CMD_INPUT";
constexpr defs::sample_id_t WRONG_ID_STEP = 1000;

pktwire::lspx::Sender::Config SenderConfig() {
    pktwire::lspx::Sender::Config config;
    config.source = pktwire::lspx::OTHER_SOURCE;
    config.endianness = pktwire::lspx::LITTLE_ENDIAN_UNITS;
    config.leader_extended_info_size = sizeof(defs::AoWavefrontCmdStream::ExtInfo::Header);
    config.frame_size = defs::WAVEFRONT_CMD_SIZE;
    return config;
}

}  // namespace

Instrument::Instrument(const Scenario& scenario, Ports& ports, InstrumentLoop* loop)
    : m_scenario(scenario),
      m_port(ports.Take()),
      m_log(scenario.ExpectedCommands()),
      m_period(scenario.CommandPeriod()),
      m_patience(std::min<std::chrono::nanoseconds>(m_period / 2, scenario.host.m4_send_delay / 2)),
      m_last_number(static_cast<std::uint64_t>(scenario.instrument.rate * scenario.duration.count())),
      m_wavefront(scenario.instrument, scenario.seed),
      m_loop(loop),
      m_faults(scenario, rig::Stream::WavefrontCommand),
      m_socket(LoopbackTo(m_port), nullptr),
      m_faulty_socket(m_socket),
      m_qudex(CheckedSamples(TOPIC, 5), m_faulty_socket, nullptr),
      m_sender(SenderConfig(), m_qudex) {}

Instrument::~Instrument() {
    FallSilent();
}

void Instrument::AddTo(HostDocument& document) const {
    document.AddInput("ao", "wavefront_cmd_stream", m_port, TOPIC);
}

void Instrument::Start(time_point first) {
    m_first = first;
    m_running = true;
    m_thread = nodepin::MakeThread("Instrument", {{}, {}, m_scenario.host.PeerPriority()}, [this] { Run(); });
}

void Instrument::TakeStep(const StepAction& action) {
    if (const auto* validity = std::get_if<SetCommandsValid>(&action)) m_valid = validity->valid;
    if (const auto* silence = std::get_if<SetInstrumentSilent>(&action)) m_silent = silence->silent;
    const auto* change = std::get_if<SetMode>(&action);
    if (change != nullptr && m_loop != nullptr) m_loop->SetMode(change->mode);
}

std::string Instrument::Progress() const {
    return fmt::format("{} commands", m_log.Entries().size());
}

void Instrument::FallSilent() {
    m_running = false;
    if (m_thread.joinable()) m_thread.join();
}

void Instrument::Run() {
    for (std::uint64_t number = 0; number < m_last_number && m_running; ++number) {
        const time_point time_stamp = m_first + m_period * static_cast<std::int64_t>(number);
        if (m_loop == nullptr) m_wavefront.Make(number, m_payload.command);
        SleepUntil(time_stamp);
        if (m_silent.load(std::memory_order_relaxed)) continue;
        if (AtomClk::now() - time_stamp > m_patience) {
            m_overruns.fetch_add(1, std::memory_order_relaxed);
            continue;
        }
        if (m_loop != nullptr) m_loop->Step(time_stamp, m_payload.command);
        SendCommand(number, time_stamp);
    }
}

PeerAccount Instrument::Account(const RunFacts& facts) const {
    std::vector<time_point> times;
    FaultCounts faults;
    for (const CommandRecord& command : m_log.Entries()) {
        times.push_back(command.sent);
        faults.Add(command.fault);
    }
    PeerAccount account;
    account.streams = {FiguresOfSent("wavefront command", times, m_period, facts, HOST_STREAM)};
    if (account.streams[0].remark.empty()) account.streams[0].remark = "invalid: marked so, or broken";
    account.faults =
        FiguresOfFaults(m_scenario, rig::Stream::WavefrontCommand, faults, HostCountsOf(facts, HOST_STREAM));
    return account;
}

void Instrument::SendCommand(std::uint64_t number, time_point time_stamp) {
    CommandRecord* record = m_log.Append();
    if (record == nullptr) return;
    const bool valid = m_valid.load(std::memory_order_relaxed);
    const std::optional<Fault> fault = m_faults.Next(time_stamp - m_first);
    defs::sample_id_t sample_id = m_next_sample_id++;
    if (fault && fault->kind == FaultKind::WrongSampleId) sample_id += WRONG_ID_STEP;
    if (fault && fault->kind == FaultKind::Delay) SleepUntil(time_stamp + fault->delay);
    if (fault) m_faulty_socket.Arm(*fault);

    Stream::ExtInfo::Header info;
    info.flags = valid ? Stream::ExtInfo::VALID : 0;
    // Published before the packets leave: whoever sees the setpoint can see its command.
    *record = {number,    time_stamp, AtomClk::now(),
               sample_id, valid,      fault ? std::optional(fault->kind) : std::nullopt};
    m_log.Publish(m_log.WrittenCount());
    m_sender.SetSampleId(sample_id);
    // The host may not be there yet, or no more. Setpoints that don't come tell of it.
    static_cast<void>(m_sender.SendSample(BytesOf(info), BytesOf(m_payload), {}, time_stamp, {}, {}));
    static_cast<void>(m_faulty_socket.Release());
}

}  // namespace vosk::rig
