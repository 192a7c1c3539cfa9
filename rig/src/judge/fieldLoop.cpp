#include "judge/fieldLoop.hpp"

#include "judge/fieldAccount.hpp"
#include "judge/packetAccount.hpp"

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
            {fmt::format("{} errors while the flowgraph lived; rejection {:.2f}. {} more are left out, as a "
                         "peer was away or just back.",
                         loop.samples, loop.Rejection(), loop.left_out)}};
}

// The streams of one run, each end against the other.
class PacketBooks {
public:
    PacketBooks(const Scenario& scenario, const RunFacts& facts, PeerAccount& account)
        : m_scenario(scenario), m_facts(facts), m_account(account) {}

    // Returns the samples that the host took, and notes which it got late or not at all.
    template <class Record>
    std::vector<Sample<Record>> CheckSent(Stream stream, const char* host_name,
                                          const AppendLog<Sample<Record>>& log,
                                          std::vector<time_point>& spoilt) {
        FaultCounts faults;
        for (const auto& sample : log.Entries()) {
            faults.Add(sample.fault);
            if (sample.fault && HarmOf(*sample.fault) != Harm::None) spoilt.push_back(sample.stamped);
        }
        const SentAccount sent = AccountOfSent(log);
        Add(stream, host_name, sent, faults);
        return TakenOf(log, sent);
    }

    template <class Record>
    void CheckArrived(const char* name, const char* host_name, const RecordReceiver<Record>& receiver,
                      std::span<const Absences::Absence> absences) {
        ArrivedPackets packets;
        packets.stale = receiver.Stale();
        for (const auto& sample : receiver.Log().Entries())
            packets.taken.push_back({sample.stamped, sample.moved});
        Add(name, host_name, packets, absences);
    }

    void Finish() {
        m_account.sections.push_back(std::move(m_sent));
        m_account.sections.push_back(std::move(m_arrived));
    }

private:
    void Add(Stream stream, const char* host_name, const SentAccount& sent, const FaultCounts& faults) {
        for (FaultFigures& figures :
             FiguresOfFaults(m_scenario, stream, faults, HostCountsOf(m_facts, host_name)))
            m_account.faults.push_back(std::move(figures));
        const HostStream* host = m_facts.FindStream(host_name);
        if (!m_facts.at_rest || host == nullptr) return;
        const auto row = [&](const char* where, const HostStream& counts, bool is_due) {
            const auto fate = [&](PacketFate kind) {
                return is_due ? fmt::to_string(sent.Count(kind)) : std::string("-");
            };
            m_sent.rows.push_back({fmt::format("{}, {}", ToString(stream), where),
                                   fmt::to_string(sent.fates.size()), fmt::to_string(counts.samples),
                                   fate(PacketFate::Dropped), fate(PacketFate::Damaged),
                                   fate(PacketFate::Overtaken), fmt::to_string(counts.lost),
                                   fmt::to_string(counts.stale_packets)});
        };
        row("as sent", sent.due, true);
        row("as the host counts", *host, false);
        for (std::string& difference : CompareWithHost(ToString(stream), sent, *host))
            m_account.violations.push_back(std::move(difference));
    }

    void Add(const char* name, const char* host_name, const ArrivedPackets& packets,
             std::span<const Absences::Absence> absences) {
        const HostStream* host = m_facts.FindStream(host_name);
        if (!m_facts.at_rest || host == nullptr) return;
        const ArrivedAccount arrived =
            AccountOfArrived(packets, absences, m_scenario.streams->interval, m_facts, host->samples);
        m_arrived.rows.push_back({name, fmt::to_string(arrived.sent), fmt::to_string(arrived.received),
                                  fmt::to_string(packets.stale), fmt::to_string(arrived.away),
                                  fmt::to_string(arrived.unsent), fmt::to_string(arrived.lost)});
        if (arrived.lost > 0)
            m_account.violations.push_back(fmt::format(
                "{}: {} were sent and reached nobody, though their peer was there", name, arrived.lost));
        if (static_cast<double>(arrived.unsent) >
            m_scenario.expect.max_exceptions * static_cast<double>(arrived.sent))
            m_account.violations.push_back(
                fmt::format("{}: {} fewer were sent than were due", name, arrived.unsent));
    }

    const Scenario& m_scenario;
    const RunFacts& m_facts;
    PeerAccount& m_account;
    ReportSection m_sent{"Field stabilisation, packets to the host",
                         {"stream", "sent", "taken", "dropped", "damaged", "overtaken", "lost", "stale"},
                         {},
                         {"Lost: IDs that were passed over. Stale: packets that came twice or too late."}};
    ReportSection m_arrived{"Field stabilisation, packets from the host",
                            {"stream", "sent", "received", "stale", "while away", "unsent", "lost"},
                            {},
                            {"Received includes stale ones, which repeat a sample: the host does so when its "
                             "flowgraph dies. Unsent: points of the grid at which the host sent nothing "
                             "while nobody was there."}};
};

}  // namespace

const FieldLoop* AddFieldPeers(const Scenario& scenario, const Optics* optics, Ports& ports,
                               std::vector<std::unique_ptr<Peer>>& peers) {
    const auto alone = [&] {
        return std::make_shared<Mirror>(2, scenario.streams->m5_lag, scenario.LoopSamples());
    };
    auto m5 = std::make_unique<M5Peer>(scenario, ports, optics == nullptr ? alone() : optics->M5());
    auto pfs = std::make_unique<PfsPeer>(scenario, ports);
    auto ms = std::make_unique<MsPeer>(scenario, ports, optics == nullptr ? alone() : optics->Ms());
    auto errors = optics == nullptr ? std::make_unique<EcmwfSim>(scenario, ports, *m5) : nullptr;
    auto flowgraph = std::make_unique<Flowgraph>(scenario, FieldFlowgraphPart(scenario));
    auto loop =
        std::make_unique<FieldLoop>(scenario, FieldLoop::Peers{errors.get(), *m5, *pfs, *ms, *flowgraph});
    peers.push_back(std::move(m5));
    peers.push_back(std::move(pfs));
    peers.push_back(std::move(ms));
    if (errors) peers.push_back(std::move(errors));
    const FieldLoop* const made = loop.get();
    peers.push_back(std::move(flowgraph));
    peers.push_back(std::move(loop));
    return made;
}

std::string FieldLoop::Progress() const {
    return fmt::format("{} M5 commands", m_peers.m5.Commands().Entries().size());
}

PeerAccount FieldLoop::Account(const RunFacts& run) const {
    PeerAccount account;
    FieldFacts facts;
    if (m_peers.errors != nullptr) facts.errors_trouble.away = m_peers.errors->GetAbsences().All();
    facts.m5_trouble.away = m_peers.m5.GetAbsences().All();
    facts.pfs_trouble.away = m_peers.pfs.GetAbsences().All();
    facts.ms_trouble.away = m_peers.ms.GetAbsences().All();
    facts.flowgraph_away = m_peers.flowgraph.GetAbsences().All();

    PacketBooks packets(m_scenario, run, account);
    std::vector<Sample<defs::WfsPayload>> errors;
    if (m_peers.errors != nullptr)
        errors = packets.CheckSent(Stream::EcmwfSim, "ECMWF_SIM_INPUT", m_peers.errors->Errors(),
                                   facts.errors_trouble.spoilt);
    const auto positions =
        packets.CheckSent(Stream::M5Position, "M5_INPUT", m_peers.m5.Positions(), facts.m5_trouble.spoilt);
    const auto measurements = packets.CheckSent(Stream::PfsMeasurement, "PFS_INPUT",
                                                m_peers.pfs.Measurements(), facts.pfs_trouble.spoilt);
    packets.CheckArrived("M5 command", "M5_OUTPUT", m_peers.m5.Receiver(), facts.m5_trouble.away);
    packets.CheckArrived("PFS correction", "PFS_OUTPUT", m_peers.pfs.Receiver(), facts.pfs_trouble.away);
    packets.CheckArrived("MS correction", "MS_OUTPUT", m_peers.ms.Receiver(), facts.ms_trouble.away);

    const std::vector<FieldRecord> flowgraph = m_peers.flowgraph.Records<FieldRecord>();
    facts.errors = errors;
    facts.m5_positions = positions;
    facts.measurements = measurements;
    facts.flowgraph = flowgraph;
    facts.m5_commands = m_peers.m5.Commands().Entries();
    facts.pfs_corrections = m_peers.pfs.Corrections().Entries();
    facts.ms_corrections = m_peers.ms.Corrections().Entries();
    facts.commands = run.commands;
    facts.first = run.start;
    facts.until = m_peers.flowgraph.SilentSince();
    const FieldAccounts accounts = MakeFieldAccounts(m_scenario, facts);

    for (const std::string& violation : accounts.violations) account.violations.push_back(violation);
    account.sections.push_back(HopsOf(accounts));
    if (m_peers.errors != nullptr) account.sections.push_back(FitOf(accounts.loop));
    packets.Finish();
    for (const HopAccount& hop : accounts.hops)
        account.times.emplace_back(hop.name + " behind its time", SpreadOf(hop.delays));
    for (const LoopReturn& back : accounts.loop.returns)
        account.history.emplace_back(run.SecondsSinceStart(back.at),
                                     fmt::format("{} is back: {}", back.who,
                                                 back.closed ? fmt::format("loop closed after {:.0f} ms",
                                                                           MicrosecondsOf(*back.closed) / 1e3)
                                                             : "the loop did not close"));
    if (m_peers.errors == nullptr) return account;
    account.achievement = fmt::format("field stabilisation rejects by {:.2f} in {} samples",
                                      accounts.loop.Rejection(), accounts.loop.samples);
    return account;
}

}  // namespace vosk::rig
