#pragma once

#include <cstdint>

namespace pktwire {

// Counts of a receiver since its construction or its last restart.
struct RxCounters {
    std::uint64_t packets = 0;     // datagrams read
    std::uint64_t samples = 0;     // delivered whole
    std::uint64_t given_up = 0;    // samples left unfinished
    std::uint64_t refused = 0;     // samples that can't be received as this receiver is set up
    std::uint64_t missed = 0;      // samples of which not one packet came, by the gaps in the IDs
    std::uint64_t lost = 0;        // packets missing from samples given up
    std::uint64_t dropped = 0;     // packets that the kernel dropped: no room in the socket, wrong checksum
    std::uint64_t short_ones = 0;  // fewer bytes than the headers say
    std::uint64_t long_ones = 0;   // more bytes than the headers say
    std::uint64_t foreign = 0;     // no QUDEX packet, another version, topic or sender than the sample's
    std::uint64_t malformed = 0;   // headers in contradiction to themselves, to the sample or to the set-up
    std::uint64_t checksum = 0;    // CRC that doesn't fit
    std::uint64_t duplicate = 0;   // packets that were there already
    std::uint64_t stale = 0;       // of a sample that is over, or that lies behind the last one delivered
    std::uint64_t unexpected = 0;  // of another kind than was asked for, packet by packet
    std::uint64_t reordered = 0;   // accepted behind a later one
    std::uint64_t ahead = 0;       // kept for a later sample
    std::uint64_t copied = 0;      // payloads that did not arrive where they belong
};

}  // namespace pktwire
