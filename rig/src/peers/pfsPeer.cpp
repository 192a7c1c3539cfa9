#include "peers/pfsPeer.hpp"

#include <cmath>

namespace vosk::rig {
namespace {

constexpr std::uint32_t INPUT_TOPIC = 413;
constexpr std::uint32_t OUTPUT_TOPIC = 414;

// Every value of a sample is its own, so that one in a wrong place is seen.
pfs::PFSTargetData Measure(double seconds) {
    pfs::PFSTargetData record;
    double turn = seconds;
    for (auto& probe : record.guide_probes) {
        turn += 1.1;
        probe.tip = std::sin(turn);
        probe.tilt = std::cos(turn);
        probe.value = std::sin(0.5 * turn);
    }
    const Pointing pointing = PointingAt(seconds);
    record.pointing.values = {pointing.hour_angle, pointing.declination, 0.1, 0.2, std::cos(0.7 * seconds)};
    return record;
}

}  // namespace

PfsPeer::PfsPeer(const Scenario& scenario, Ports& ports)
    : StreamPeer("PFS", FieldPeer::Pfs, scenario.host.PeerPriority(), scenario.streams->interval,
                 scenario.streams->MeasurementOffset()),
      m_settings(*scenario.streams),
      m_input_port(ports.Take()),
      m_output_port(ports.Take()),
      m_sender(scenario, Stream::PfsMeasurement, m_input_port, INPUT_TOPIC, scenario.LoopSamples()),
      m_receiver(m_output_port, OUTPUT_TOPIC, scenario.LoopSamples()) {}

void PfsPeer::AddTo(HostDocument& document) const {
    document.AddInput("pfs", "input", m_input_port, INPUT_TOPIC);
    document.AddOutput("pfs", "output", m_output_port, OUTPUT_TOPIC, m_settings.interval,
                       m_settings.CommandOffset());
}

void PfsPeer::OnGridPoint(time_point) {
    const Seconds time = AtomClk::now() - First();
    m_sender.Send(Measure(time.count()), time);
}

void PfsPeer::Receive(std::chrono::nanoseconds timeout) {
    static_cast<void>(m_receiver.Receive(timeout));
}

void PfsPeer::Die() {
    m_receiver.Close();
    m_sender.Close();
}

void PfsPeer::Return() {
    m_receiver.Open();
    m_sender.Open();
}

PeerAccount PfsPeer::Account(const RunFacts& facts) const {
    PeerAccount account;
    account.streams = {FiguresOfSent("PFS measurement", TimesOf(Measurements().Entries()),
                                     m_settings.interval, facts, "PFS_INPUT"),
                       FiguresOfReceived("PFS correction", TimesOf(Corrections().Entries()),
                                         m_settings.interval, facts, "PFS_OUTPUT", 0)};
    return account;
}

}  // namespace vosk::rig
