#include "peers/instrument.hpp"

#include "peers/loopback.hpp"

#include <sched.h>
#include <nodepin/nodepin.hpp>

#include <ctime>

namespace vosk::rig {
namespace {

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

bool TakePriority(int priority) {
    const sched_param parameters{priority};
    return priority == 0 || sched_setscheduler(0, SCHED_FIFO, &parameters) == 0;
}

void SleepUntil(time_point time) {
    const auto count = time.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(count);
    const timespec until{seconds.count(), (count - seconds).count()};
    while (clock_nanosleep(CLOCK_TAI, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

Instrument::Instrument(const Scenario& scenario, const Ports& ports, AppendLog<CommandRecord>& log)
    : m_log(log),
      m_period(scenario.CommandPeriod()),
      m_patience(std::min<std::chrono::nanoseconds>(m_period / 2, scenario.host.m4_send_delay / 4)),
      m_last_number(static_cast<std::uint64_t>(scenario.instrument.rate * scenario.duration.count())),
      m_priority(scenario.host.PeerPriority()),
      m_wavefront(scenario.instrument, scenario.seed),
      m_faults(scenario, rig::Stream::WavefrontCommand),
      m_socket(LoopbackTo(ports.wavefront_command), nullptr),
      m_faulty_socket(m_socket),
      m_qudex(CheckedSamples(Topics::WAVEFRONT_COMMAND, 5), m_faulty_socket, nullptr),
      m_sender(SenderConfig(), m_qudex) {}

Instrument::~Instrument() {
    Stop();
}

void Instrument::Start(time_point first) {
    m_first = first;
    m_running = true;
    m_thread = nodepin::MakeThread("Instrument", {}, [this] { Run(); });
}

void Instrument::Stop() {
    m_running = false;
    if (m_thread.joinable()) m_thread.join();
}

void Instrument::Run() {
    TakePriority(m_priority);
    for (std::uint64_t number = 0; number < m_last_number && m_running; ++number) {
        const time_point time_stamp = m_first + m_period * static_cast<std::int64_t>(number);
        m_wavefront.Make(number, m_payload.command);
        SleepUntil(time_stamp);
        if (m_silent.load(std::memory_order_relaxed)) continue;
        if (AtomClk::now() - time_stamp > m_patience) {
            m_overruns.fetch_add(1, std::memory_order_relaxed);
            continue;
        }
        SendCommand(number, time_stamp);
    }
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
    // The host may not be there yet, or not any more; nobody but the setpoints that don't come need tell.
    static_cast<void>(m_sender.SendSample(BytesOf(info), BytesOf(m_payload), {}, time_stamp, {}, {}));
    static_cast<void>(m_faulty_socket.Release());
}

}  // namespace vosk::rig
