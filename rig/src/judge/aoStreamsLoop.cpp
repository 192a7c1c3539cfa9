#include "judge/aoStreamsLoop.hpp"

#include "judge/aoStreamsAccount.hpp"
#include "judge/packetAccount.hpp"

#include <fmt/format.h>

namespace vosk::rig {
namespace {

ReportSection SectionOf(const AoStreamsAccounts& accounts) {
    ReportSection section{
        "AO streams", {"stream", "due", "right", "missing", "late", "old", "wrong"}, {}, {}};
    for (std::size_t i = 0; i < AO_STREAMS; ++i) {
        const AoStreamAccount& account = accounts.streams[i];
        section.rows.push_back({NameOf(static_cast<AoStream>(i)), fmt::to_string(account.due),
                                fmt::to_string(account.right), fmt::to_string(account.missing),
                                fmt::to_string(account.late), fmt::to_string(account.old),
                                fmt::to_string(account.wrong)});
    }
    section.notes.push_back(fmt::format(
        "Commands without samples: {} dropped, as the host was still sending for the one before, {} "
        "skipped for no such reason, {} harmed by the rig.",
        accounts.dropped, accounts.skipped, accounts.harmed));
    return section;
}

}  // namespace

PeerAccount AoStreamsLoop::Account(const RunFacts& run) const {
    std::vector<FieldRecord> flowgraph;
    std::vector<Sample<defs::M5PttAct::Payload>> positions;
    AoStreamsFacts facts;
    facts.commands = m_peers.instrument.Log().Entries();
    for (std::size_t i = 0; i < AO_STREAMS; ++i) {
        facts.samples[i] = m_peers.listener.Samples(static_cast<AoStream>(i));
        facts.broken[i] = m_peers.listener.Broken(static_cast<AoStream>(i));
    }
    facts.setpoints = m_peers.m4.Log().Entries();
    facts.feedback = m_peers.m4.FeedbackLog().Entries();
    if (m_peers.field != nullptr) {
        flowgraph = m_peers.field->GetPeers().flowgraph.Records<FieldRecord>();
        facts.flowgraph = flowgraph;
        const auto& sent = m_peers.field->GetPeers().m5.Positions();
        positions = TakenOf(sent, AccountOfSent(sent));
        facts.m5_positions = positions;
    }
    facts.modes = run.modes;
    facts.until = run.stop_asked.value_or(time_point::max());
    const AoStreamsAccounts accounts = MakeAoStreamsAccounts(m_scenario, facts);

    PeerAccount account;
    account.violations = accounts.violations;
    account.sections = {SectionOf(accounts)};
    for (std::size_t i = 0; i < AO_STREAMS; ++i)
        account.times.emplace_back(
            fmt::format("{}: actual less planned send time", NameOf(static_cast<AoStream>(i))),
            SpreadOf(accounts.streams[i].delays));
    return account;
}

}  // namespace vosk::rig
