#include "judge/fieldLoop.hpp"

#include "judge/fieldAccount.hpp"

#include <fmt/format.h>

namespace vosk::rig {
namespace {

ReportSection HopsOf(const FieldAccounts& accounts) {
    ReportSection section = DescribeHops("Field stabilisation, hop by hop", accounts.hops);
    section.notes.push_back(
        fmt::format("{} records of fs_in lost, {} off the grid; {} answers of the flowgraph wrong.",
                    accounts.lost_inputs, accounts.off_grid, accounts.wrong_answers));
    return section;
}

ReportSection FitOf(const LoopFit& loop) {
    return {"Field stabilisation, the loop",
            {"rms", "measured"},
            {{"disturbance", fmt::format("{:.4f}", loop.disturbance_rms)},
             {"residual", fmt::format("{:.4f}", loop.residual_rms)},
             {"residual as predicted", fmt::format("{:.4f}", loop.predicted_rms)},
             {"residual less prediction", fmt::format("{:.4f}", loop.error_rms)}},
            {fmt::format("{} errors while the flowgraph lived; rejection {:.2f}.", loop.samples,
                         loop.Rejection())}};
}

}  // namespace

void AddFieldPeers(const Scenario& scenario, Ports& ports, std::vector<std::unique_ptr<Peer>>& peers) {
    auto m5 = std::make_unique<M5Peer>(scenario, ports);
    auto pfs = std::make_unique<PfsPeer>(scenario, ports);
    auto ms = std::make_unique<MsPeer>(scenario, ports);
    auto errors = std::make_unique<EcmwfSim>(scenario, ports, *m5);
    auto flowgraph = std::make_unique<Flowgraph>(scenario, FieldFlowgraphPart(scenario));
    auto loop = std::make_unique<FieldLoop>(scenario, FieldLoop::Peers{*errors, *m5, *pfs, *ms, *flowgraph});
    peers.push_back(std::move(m5));
    peers.push_back(std::move(pfs));
    peers.push_back(std::move(ms));
    peers.push_back(std::move(errors));
    peers.push_back(std::move(flowgraph));
    peers.push_back(std::move(loop));
}

std::string FieldLoop::Progress() const {
    return fmt::format("{} errors, {} M5 commands", m_peers.errors.Errors().Entries().size(),
                       m_peers.m5.Commands().Entries().size());
}

PeerAccount FieldLoop::Account(const RunFacts&) const {
    const std::vector<FieldRecord> flowgraph = m_peers.flowgraph.Records<FieldRecord>();
    FieldFacts facts;
    facts.errors = m_peers.errors.Errors().Entries();
    facts.m5_positions = m_peers.m5.Positions().Entries();
    facts.measurements = m_peers.pfs.Measurements().Entries();
    facts.flowgraph = flowgraph;
    facts.m5_commands = m_peers.m5.Commands().Entries();
    facts.pfs_corrections = m_peers.pfs.Corrections().Entries();
    facts.ms_corrections = m_peers.ms.Corrections().Entries();
    facts.first = m_first;
    facts.until = m_peers.flowgraph.SilentSince();
    const FieldAccounts accounts = MakeFieldAccounts(m_scenario, facts);

    PeerAccount account;
    account.violations = accounts.violations;
    account.sections = {HopsOf(accounts), FitOf(accounts.loop)};
    for (const HopAccount& hop : accounts.hops)
        account.times.emplace_back(hop.name + " behind its time", SpreadOf(hop.delays));
    account.achievement = fmt::format("field stabilisation rejects by {:.2f} in {} samples",
                                      accounts.loop.Rejection(), accounts.loop.samples);
    return account;
}

}  // namespace vosk::rig
