#include "judge/aoLoop.hpp"

#include "judge/loopAccount.hpp"

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace vosk::rig {

void AddAoTasks(const Scenario& scenario, const LoopCalibration& calibration, HostDocument& document) {
    const HostSettings& host = scenario.host;
    document.Add(
        "ao", "ao_tasks",
        fmt::format("busy: {}\nm4_send_delay: {} us\nm4_response_timeout: {} us\ngpao_highest_mode: {}\n"
                    "delta_scaling: {}\nmanaged_modes: {}\nm2p_path: {}\nthreshold_velocity: {:.9g}\n"
                    "threshold_gap: {:.9g}",
                    host.busy, host.m4_send_delay.count(), host.m4_response_timeout.count(),
                    host.gpao_highest_mode, host.delta_scaling, host.managed_modes,
                    YAML::Dump(YAML::Node(calibration.basis_file.string())), calibration.limits.velocity,
                    calibration.limits.gap));
}

AoLoop::AoLoop(const Scenario& scenario, const LoopCalibration& calibration, const ModeTimeline& modes,
               const Instrument& instrument, M4Peer& m4)
    : m_scenario(scenario),
      m_calibration(calibration),
      m_instrument(instrument),
      m_m4(m4),
      m_check(ContentCheck(scenario, calibration.basis, calibration.limits, instrument.Log(), modes),
              m4.Log(), m4.Ring()) {}

void AoLoop::AddTo(HostDocument& document) const {
    AddAoTasks(m_scenario, m_calibration, document);
}

void AoLoop::Start(time_point) {
    m_check.Start();
}

std::string AoLoop::Progress() const {
    const auto setpoints = m_m4.Log().Entries();
    const auto recent = setpoints.last(std::min<std::size_t>(setpoints.size(), 500));
    std::vector<double> lateness;
    for (const SetpointRecord& setpoint : recent)
        lateness.push_back(MicrosecondsOf(setpoint.arrived - setpoint.planned));
    return fmt::format("{} checked, {} wrong, late p99 {:.0f} us", m_check.Checked(), m_check.Wrong(),
                       SpreadOf(std::move(lateness)).p99);
}

void AoLoop::Stop() {
    if (const auto left = m_m4.Log().Entries().size() - m_check.Checked(); left > 500) {
        fmt::print("checking the last {} setpoints\n", left);
        std::fflush(stdout);
    }
    m_check.Finish();
}

PeerAccount AoLoop::Account(const RunFacts& facts) const {
    LoopFacts loop;
    loop.commands = m_instrument.Log().Entries();
    loop.setpoints = m_m4.Log().Entries();
    loop.checked = m_check.Results();
    loop.m4_absences = m_m4.GetAbsences().All();
    loop.incomplete_setpoints = m_m4.IncompleteSetpoints();
    loop.foreign_packets = m_m4.ForeignPackets();
    loop.log_overflow = m_instrument.Log().Refused() + m_m4.Log().Refused();
    const Accounts accounts = MakeAccounts(m_scenario, facts, loop);
    return DescribeLoop(m_scenario, facts, loop, accounts, m_instrument.Overruns());
}

}  // namespace vosk::rig
