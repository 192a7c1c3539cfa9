#include "peers/m5Peer.hpp"

#include <array>
#include <utility>

namespace vosk::rig {
namespace {

constexpr std::uint32_t INPUT_TOPIC = 411;
constexpr std::uint32_t OUTPUT_TOPIC = 412;

}  // namespace

M5Peer::M5Peer(const Scenario& scenario, Ports& ports, std::shared_ptr<Mirror> mirror)
    : StreamPeer("M5", FieldPeer::M5, scenario.host.PeerPriority(), scenario.streams->interval / 2,
                 scenario.streams->MeasurementOffset()),
      m_settings(*scenario.streams),
      m_input_port(ports.Take()),
      m_output_port(ports.Take()),
      m_sender(scenario, Stream::M5Position, m_input_port, INPUT_TOPIC, 2 * scenario.LoopSamples()),
      m_receiver(m_output_port, OUTPUT_TOPIC, scenario.LoopSamples()),
      m_mirror(std::move(mirror)) {}

void M5Peer::AddTo(HostDocument& document) const {
    document.AddInput("m5", "input", m_input_port, INPUT_TOPIC);
    document.AddOutput("m5", "output", m_output_port, OUTPUT_TOPIC, m_settings.interval,
                       m_settings.CommandOffset());
}

TipTilt M5Peer::PositionAt(time_point time) const {
    std::array<double, 2> position{};
    m_mirror->At(time, position);
    return {position[0], position[1]};
}

void M5Peer::OnGridPoint(time_point) {
    const TipTilt position = PositionAt(AtomClk::now());
    defs::M5PttAct::Payload record;
    record.tip = position.tip;
    record.tilt = position.tilt;
    m_sender.Send(record, AtomClk::now() - First());
}

void M5Peer::Receive(std::chrono::nanoseconds timeout) {
    const auto* command = m_receiver.Receive(timeout);
    if (command == nullptr) return;
    // From its arrival on, whenever this thread woke.
    m_mirror->Follow(command->moved, std::array<double, 2>{command->record.tip, command->record.tilt});
}

void M5Peer::Die() {
    m_receiver.Close();
    m_sender.Close();
    m_mirror->Hold(AtomClk::now());
}

void M5Peer::Return() {
    m_receiver.Open();
    m_sender.Open();
}

PeerAccount M5Peer::Account(const RunFacts& facts) const {
    PeerAccount account;
    account.streams = {FiguresOfReceived("M5 command", TimesOf(Commands().Entries()), m_settings.interval,
                                         facts, "M5_OUTPUT", 0),
                       FiguresOfSent("M5 position", TimesOf(Positions().Entries()), m_settings.interval / 2,
                                     facts, "M5_INPUT")};
    return account;
}

}  // namespace vosk::rig
