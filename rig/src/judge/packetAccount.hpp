#pragma once

// The books of streams of one packet a sample, to the packet: what the host must have made of each one that
// was sent to it, and what it sent against what arrived. Pure functions of what both ends wrote down.

#include "peers/absences.hpp"
#include "peers/recordStreams.hpp"
#include "runFacts.hpp"

#include <vosk/defs/sizes.hpp>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vosk::rig {

struct SentPacket {
    defs::sample_id_t id = 0;
    time_point stamped;
    std::optional<FaultKind> fault;
};

enum class PacketFate {
    Taken,
    Dropped,
    Damaged,
    Overtaken,  // by the sample behind it, so that the host drops it as stale
};

struct SentAccount {
    std::vector<PacketFate> fates;  // of each packet that was sent
    HostStream due;                 // as the host must count

    std::uint64_t Count(PacketFate fate) const;
};

// In the order in which they left.
SentAccount AccountOfSent(std::span<const SentPacket> packets);

template <class Record>
SentAccount AccountOfSent(const AppendLog<Sample<Record>>& log) {
    std::vector<SentPacket> packets;
    for (const auto& sample : log.Entries()) packets.push_back({sample.id, sample.stamped, sample.fault});
    return AccountOfSent(packets);
}

// Those of the log that the host took: in the order of their times.
template <class Record>
std::vector<Sample<Record>> TakenOf(const AppendLog<Sample<Record>>& log, const SentAccount& account) {
    std::vector<Sample<Record>> taken;
    for (std::size_t i = 0; i < account.fates.size(); ++i)
        if (account.fates[i] == PacketFate::Taken) taken.push_back(log.Entries()[i]);
    return taken;
}
// How the host's counts differ, a sentence each.
std::vector<std::string> CompareWithHost(const std::string& name, const SentAccount& account,
                                         const HostStream& host);

// Up to the moment at which the host told its counts: the last ones may be in them or not.
struct SentSamples {
    std::uint64_t least = 0;
    std::uint64_t most = 0;
};
SentSamples SentUntilTold(std::span<const time_point> sent, const RunFacts& facts);

// Of a stream of samples of several packets: one that lost a packet, or got one damaged, is invalid, and any
// other is taken, whatever the order of its packets.
std::vector<std::string> CompareSamplesWithHost(const std::string& name, SentSamples sent,
                                                const FaultCounts& faults, const HostStream& host);

struct ArrivedPacket {
    time_point stamped;  // on the host's grid
    time_point arrived;
};

struct ArrivedPackets {
    std::vector<ArrivedPacket> taken;  // in the order of their arrival
    std::uint64_t stale = 0;           // and so many more, as old as one that was there already
};

// A stream from the host, up to the moment at which it told its count. Samples that were on their way then
// may count or not.
struct ArrivedAccount {
    std::uint64_t sent = 0;      // as the host counts
    std::uint64_t received = 0;  // of those, stale ones included
    std::uint64_t away = 0;      // points of the grid with nothing, while nobody was there
    std::uint64_t lost = 0;      // sent, while somebody was there, and not received
    std::uint64_t unsent = 0;    // of the points while nobody was there
};

ArrivedAccount AccountOfArrived(const ArrivedPackets& packets, std::span<const Absences::Absence> absences,
                                std::chrono::nanoseconds interval, const RunFacts& facts,
                                std::uint64_t host_sent);

}  // namespace vosk::rig
