#include "judge/packetAccount.hpp"

#include <fmt/format.h>

#include <algorithm>

namespace vosk::rig {
namespace {

// A gap this wide, or a step back, is a sender that started again.
constexpr std::uint32_t WIDEST_GAP = 1U << 20U;
// From the sender to the host's count.
constexpr std::chrono::milliseconds ON_ITS_WAY{2};

PacketFate FateOnTheWay(const SentPacket& packet) {
    if (packet.fault == FaultKind::Drop) return PacketFate::Dropped;
    const bool damaged = packet.fault == FaultKind::Corrupt || packet.fault == FaultKind::Truncate;
    return damaged ? PacketFate::Damaged : PacketFate::Taken;
}

// The points of the grid strictly between two packets that the peer's absence explains.
std::uint64_t PointsAway(time_point from, time_point to, std::span<const Absences::Absence> absences,
                         std::chrono::nanoseconds interval) {
    std::uint64_t points = 0;
    for (time_point point = from + interval; point < to; point += interval)
        if (IsAway(absences, point, interval)) ++points;
    return points;
}

}  // namespace

std::uint64_t SentAccount::Count(PacketFate fate) const {
    return static_cast<std::uint64_t>(std::count(fates.begin(), fates.end(), fate));
}

SentAccount AccountOfSent(std::span<const SentPacket> packets) {
    SentAccount account;
    const SentPacket* latest = nullptr;  // that was taken
    for (const SentPacket& packet : packets) {
        PacketFate fate = FateOnTheWay(packet);
        if (fate == PacketFate::Taken && latest != nullptr && packet.stamped <= latest->stamped)
            fate = PacketFate::Overtaken;
        account.fates.push_back(fate);
        if (fate == PacketFate::Overtaken) ++account.due.stale_packets;
        if (fate != PacketFate::Taken) continue;
        ++account.due.samples;
        if (packet.fault == FaultKind::Duplicate) ++account.due.stale_packets;
        if (latest != nullptr) {
            const std::uint32_t gap = packet.id - latest->id - 1;
            account.due.lost += gap < WIDEST_GAP ? gap : 0;
        }
        latest = &packet;
    }
    return account;
}

std::vector<std::string> CompareWithHost(const std::string& name, const SentAccount& account,
                                         const HostStream& host) {
    std::vector<std::string> differences;
    const auto compare = [&](const char* what, std::uint64_t counted, std::uint64_t due) {
        if (counted != due)
            differences.push_back(fmt::format("{}: the host counts {} {}, not {}", name, counted, what, due));
    };
    const HostStream& due = account.due;
    // What the kernel drops is one more kind of loss.
    compare("samples", host.samples + host.dropped_packets, due.samples);
    compare("lost ones", host.lost, due.lost + host.dropped_packets);
    compare("stale packets", host.stale_packets, due.stale_packets);
    compare("invalid ones", host.invalid, due.invalid);
    return differences;
}

SentSamples SentUntilTold(std::span<const time_point> sent, const RunFacts& facts) {
    SentSamples samples;
    for (const time_point time : sent) {
        if (time <= facts.status_answered) ++samples.most;
        if (time <= facts.status_time - ON_ITS_WAY) ++samples.least;
    }
    return samples;
}

std::vector<std::string> CompareSamplesWithHost(const std::string& name, SentSamples sent,
                                                const FaultCounts& faults, const HostStream& host) {
    const std::uint64_t spoilt =
        faults.Of(FaultKind::Drop) + faults.Of(FaultKind::Corrupt) + faults.Of(FaultKind::Truncate);
    std::vector<std::string> differences;
    // What the kernel drops spoils more.
    if (host.invalid < spoilt || host.invalid > spoilt + host.dropped_packets)
        differences.push_back(
            fmt::format("{}: the host counts {} invalid ones, not {}", name, host.invalid, spoilt));
    const std::uint64_t counted = host.samples + host.invalid;
    if (counted > sent.most || counted + host.dropped_packets < sent.least)
        differences.push_back(fmt::format("{}: the host counts {} samples and {} invalid ones of {}", name,
                                          host.samples, host.invalid, sent.least));
    return differences;
}

ArrivedAccount AccountOfArrived(const ArrivedPackets& packets, std::span<const Absences::Absence> absences,
                                std::chrono::nanoseconds interval, const RunFacts& facts,
                                std::uint64_t host_sent) {
    ArrivedAccount account;
    account.sent = host_sent;
    const auto on_its_way = interval * 3 / 8;
    std::uint64_t least = packets.stale;
    std::uint64_t most = packets.stale;
    const ArrivedPacket* before = nullptr;
    for (const ArrivedPacket& packet : packets.taken) {
        if (packet.arrived > facts.status_answered + on_its_way) break;
        ++most;
        if (packet.arrived < facts.status_time - on_its_way) ++least;
        if (before != nullptr)
            account.away += PointsAway(before->stamped, packet.stamped, absences, interval);
        before = &packet;
    }
    if (before != nullptr)
        account.away += PointsAway(before->stamped, facts.status_time - on_its_way, absences, interval);
    const std::uint64_t reached = host_sent - std::min(host_sent, account.away);
    account.received = std::clamp(reached, least, most);
    account.lost = reached - std::min(reached, most);
    account.unsent = least - std::min(least, reached);
    return account;
}

}  // namespace vosk::rig
