#include "peers/msPeer.hpp"

#include <array>
#include <utility>

namespace vosk::rig {
namespace {

constexpr std::uint32_t TOPIC = 415;

}  // namespace

MsPeer::MsPeer(const Scenario& scenario, Ports& ports, std::shared_ptr<Mirror> mirror)
    : StreamPeer("MS", FieldPeer::Ms, scenario.host.PeerPriority(), scenario.streams->interval, {}),
      m_settings(*scenario.streams),
      m_port(ports.Take()),
      m_receiver(m_port, TOPIC, scenario.LoopSamples()),
      m_mirror(std::move(mirror)) {}

void MsPeer::AddTo(HostDocument& document) const {
    document.AddOutput("ms", "output", m_port, TOPIC, m_settings.interval, m_settings.CommandOffset());
}

void MsPeer::Receive(std::chrono::nanoseconds timeout) {
    const auto* correction = m_receiver.Receive(timeout);
    if (correction == nullptr) return;
    m_mirror->Follow(correction->moved,
                     std::array<double, 2>{correction->record.tip, correction->record.tilt});
}

void MsPeer::Die() {
    m_receiver.Close();
    m_mirror->Hold(AtomClk::now());
}

void MsPeer::Return() {
    m_receiver.Open();
}

PeerAccount MsPeer::Account(const RunFacts& facts) const {
    PeerAccount account;
    account.streams = {FiguresOfReceived("MS correction", TimesOf(Corrections().Entries()),
                                         m_settings.interval, facts, "MS_OUTPUT", 0)};
    return account;
}

}  // namespace vosk::rig
