#include "peers/aoStreams.hpp"

#include "peers/loopback.hpp"

#include <fmt/format.h>
#include <nodepin/nodepin.hpp>
#include <vosk/defs/wireRecords.hpp>

#include <algorithm>
#include <cstring>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t FIRST_TOPIC = 421;
constexpr auto LOOK_ROUND = 2ms;
// In one round, so that a thread that fell behind still notices its stop.
constexpr int SAMPLES_A_ROUND = 64;

struct Form {
    const char* name;
    const char* key;  // in the host's document
    std::size_t leader_info;
    std::size_t values;
    std::uint16_t frames;
};

template <class Stream>
constexpr Form FormOf(const char* name, const char* key, std::uint16_t frames) {
    return {name, key, sizeof(typename Stream::ExtInfo::Header),
            sizeof(typename Stream::Payload) / sizeof(float), frames};
}

constexpr std::array<Form, AO_STREAMS> FORMS{
    FormOf<defs::AoM5PttAct>("ao:m5_ptt_act", "m5_ptt_act", 3),
    FormOf<defs::AoFieldStabilizationU4>("ao:field_stabilization_u4", "fs_u4", 3),
    FormOf<defs::AoM4SetpointApplied>("ao:m4_setpoint_applied", "m4_setpoint_applied", 5),
    FormOf<defs::AoM4CapSensAct>("ao:m4_cap_sens_act", "m4_cap_sens_act", 5)};

const Form& FormOf(AoStream stream) {
    return FORMS[static_cast<std::size_t>(stream)];
}

std::uint32_t TopicOf(AoStream stream) {
    return FIRST_TOPIC + static_cast<std::uint32_t>(stream);
}

pktwire::lspx::Receiver::QudexReceiver MakeQudexReceiver(AoStream stream, ArrivalSocket& socket) {
    pktwire::qudex::Receiver::Config config;
    config.topic = TopicOf(stream);
    config.num_frames = FormOf(stream).frames;
    return {new pktwire::qudex::Receiver(config, socket, nullptr),
            [](pktwire::qudex::Receiver* receiver) { delete receiver; }};
}

pktwire::lspx::Receiver::Config LspxConfig(AoStream stream) {
    pktwire::lspx::Receiver::Config config;
    config.endianness = pktwire::lspx::LITTLE_ENDIAN_UNITS;
    config.leader_extended_info_size = static_cast<std::uint8_t>(FormOf(stream).leader_info);
    config.data_unit_size = sizeof(float);
    return config;
}

template <class Header>
Header As(std::span<const std::byte> bytes) {
    Header header;
    std::memcpy(&header, bytes.data(), sizeof header);
    return header;
}

void ReadLeader(AoStream stream, std::span<const std::byte> leader, AoSample& sample) {
    if (stream == AoStream::M5Position) {
        const auto header = As<defs::AoM5PttAct::ExtInfo::Header>(leader);
        sample.receive_time = header.receive_time;
        sample.data_time = header.m5_time;
        sample.status = header.valid;
    } else if (stream == AoStream::SetpointApplied) {
        const auto header = As<defs::AoM4SetpointApplied::ExtInfo::Header>(leader);
        sample.receive_time = header.receive_time;
        sample.data_time = header.applied_time;
        sample.status = header.status;
    } else {
        sample.status = std::to_integer<std::uint16_t>(leader.front());
    }
}

}  // namespace

const char* NameOf(AoStream stream) {
    return FormOf(stream).name;
}

AoStreamReceiver::AoStreamReceiver(AoStream stream, std::uint16_t port, std::size_t capacity)
    : m_stream(stream),
      m_socket(port),
      m_receiver(LspxConfig(stream), MakeQudexReceiver(stream, m_socket), nullptr),
      m_leader_info(FormOf(stream).leader_info),
      m_payload(FormOf(stream).values),
      m_log(capacity) {}

void AoStreamReceiver::Drain() {
    for (int i = 0; i < SAMPLES_A_ROUND; ++i) {
        const auto payload =
            gsl::span(reinterpret_cast<std::byte*>(m_payload.data()), m_payload.size() * sizeof(float));
        const auto [error, sample] = m_receiver.ReceiveSample(m_leader_info, payload, {}, 0ns);
        if (error == std::errc::timed_out) return;
        if (!error && sample.leader->NumUnits() == m_payload.size())
            Take(*sample.leader);
        else
            ++m_broken;
    }
}

void AoStreamReceiver::Take(const pktwire::lspx::Receiver::LeaderPacket& leader) {
    AoSample* sample = m_log.Append();
    if (sample == nullptr) return;
    const auto arrival = m_socket.Find(leader.SampleId());
    sample->id = leader.SampleId();
    sample->stamped = leader.Timestamp();
    sample->arrived = arrival ? arrival->first : AtomClk::now();
    ReadLeader(m_stream, m_leader_info, *sample);
    std::copy_n(m_payload.begin(), std::min(m_payload.size(), sample->values.size()), sample->values.begin());
    sample->digest = DigestOf(m_payload);
    m_log.Publish(m_log.WrittenCount());
}

AoStreamsPeer::AoStreamsPeer(const Scenario& scenario, Ports& ports) : m_scenario(scenario) {
    for (std::size_t i = 0; i < AO_STREAMS; ++i) {
        m_ports[i] = ports.Take();
        m_receivers[i] = std::make_unique<AoStreamReceiver>(static_cast<AoStream>(i), m_ports[i],
                                                            scenario.ExpectedCommands());
    }
}

void AoStreamsPeer::AddTo(HostDocument& document) const {
    std::string node = fmt::format("busy: {}", m_scenario.host.busy);
    for (std::size_t i = 0; i < AO_STREAMS; ++i)
        node += fmt::format("\n{}: {{ip_dest: 127.0.0.1, udp_dest: {}, qudex_topic: {}, send_delay: {} us}}",
                            FORMS[i].key, m_ports[i], TopicOf(static_cast<AoStream>(i)),
                            m_scenario.ao_streams->delays[i].count());
    document.Add("ao", "output", node);
}

void AoStreamsPeer::Start(time_point) {
    m_running = true;
    m_thread = nodepin::MakeThread("AoStreams", {{}, {}, m_scenario.host.PeerPriority()}, [this] { Run(); });
}

std::string AoStreamsPeer::Progress() const {
    return fmt::format("{} AO samples", Samples(AoStream::M5Position).size());
}

void AoStreamsPeer::Stop() {
    m_running = false;
    if (m_thread.joinable()) m_thread.join();
}

void AoStreamsPeer::Run() {
    bool running = true;
    while (running) {
        running = m_running;  // once more after the stop
        for (const auto& receiver : m_receivers) receiver->Drain();
        if (running) SleepUntil(AtomClk::now() + LOOK_ROUND);
    }
}

PeerAccount AoStreamsPeer::Account(const RunFacts& facts) const {
    PeerAccount account;
    for (std::size_t i = 0; i < AO_STREAMS; ++i) {
        const auto stream = static_cast<AoStream>(i);
        std::vector<time_point> arrivals;
        for (const AoSample& sample : Samples(stream)) arrivals.push_back(sample.arrived);
        account.streams.push_back(FiguresOfReceived(NameOf(stream), arrivals, m_scenario.CommandPeriod(),
                                                    facts, "AO_OUTPUT", Broken(stream)));
    }
    return account;
}

}  // namespace vosk::rig
