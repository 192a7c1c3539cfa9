#pragma once

// The books of streams of one packet a sample, to the packet: what the host must have made of each one that
// was sent to it, and what it sent against what arrived. Pure functions of what both ends wrote down.

#include "peers/absences.hpp"
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
// How the host's counts differ, a sentence each.
std::vector<std::string> CompareWithHost(const std::string& name, const SentAccount& account,
                                         const HostStream& host);

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
