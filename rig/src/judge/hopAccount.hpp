#pragma once

// The books of one hop of a stream through a flowgraph: from a peer into the flowgraph's record, or from its
// answer to a peer.

#include "report/report.hpp"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace vosk::rig {

struct HopAccount {
    std::string name;
    std::uint64_t due = 0;       // places in records, or answers
    std::uint64_t right = 0;     // content and ID as they must be
    std::uint64_t missing = 0;   // answers that reached nobody; records with nothing new
    std::uint64_t late = 0;      // right, but beyond the margin
    std::uint64_t wrong = 0;     // content that nobody sent, or that belongs to another sample
    std::uint64_t excused = 0;   // missing or late by the rig's own doing: a fault, a peer that was away
    std::uint64_t repeated = 0;  // commands that repeat the flowgraph's last answer; no fault
    // Microseconds: age in the record less its due age, or arrival after its time.
    std::vector<double> delays{};
};

ReportSection DescribeHops(const std::string& title, std::span<const HopAccount> hops);

}  // namespace vosk::rig
