#include "peers/ecmwfSim.hpp"

#include "skyRotation.hpp"

namespace vosk::rig {
namespace {

constexpr std::uint32_t TOPIC = 416;

}  // namespace

EcmwfSim::EcmwfSim(const Scenario& scenario, Ports& ports, const M5Peer& m5)
    : StreamPeer("ECMWFSim", FieldPeer::EcmwfSim, scenario.host.PeerPriority(), scenario.streams->interval,
                 {}),
      m_settings(*scenario.streams),
      m_m5(m5),
      m_port(ports.Take()),
      m_sender(scenario, Stream::EcmwfSim, m_port, TOPIC, scenario.LoopSamples()),
      m_disturbance(m_settings.disturbance, scenario.seed),
      m_random(scenario.seed),
      m_noise(0.0, m_settings.noise) {}

void EcmwfSim::AddTo(HostDocument& document) const {
    document.AddInput("ecmwfsim", "input", m_port, TOPIC);
}

void EcmwfSim::OnGridPoint(time_point) {
    const time_point now = AtomClk::now();
    const double seconds = std::chrono::duration<double>(now - First()).count();
    const TipTilt light = m_disturbance.At(seconds);
    const TipTilt m5 = M5ToSky(m_m5.PositionAt(now), PointingAt(seconds));
    defs::WfsPayload record;
    for (auto& block : record.blocks) {
        block.timestamp = now;
        block.x = light.tip - m5.tip + m_noise(m_random);
        block.y = light.tilt - m5.tilt + m_noise(m_random);
    }
    m_sender.Send(record, now - First());
}

void EcmwfSim::Die() {
    m_sender.Close();
}

void EcmwfSim::Return() {
    m_sender.Open();
}

PeerAccount EcmwfSim::Account(const RunFacts& facts) const {
    PeerAccount account;
    account.streams = {FiguresOfSent("ECMWFSim errors", TimesOf(Errors().Entries()), m_settings.interval,
                                     facts, "ECMWF_SIM_INPUT")};
    return account;
}

}  // namespace vosk::rig
