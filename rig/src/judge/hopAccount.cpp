#include "judge/hopAccount.hpp"

#include <fmt/format.h>

namespace vosk::rig {

ReportSection DescribeHops(const std::string& title, std::span<const HopAccount> hops) {
    ReportSection section{
        title, {"hop", "due", "right", "excused", "missing", "late", "wrong", "repeated"}, {}, {}};
    for (const HopAccount& hop : hops)
        section.rows.push_back({hop.name, fmt::to_string(hop.due), fmt::to_string(hop.right),
                                fmt::to_string(hop.excused), fmt::to_string(hop.missing),
                                fmt::to_string(hop.late), fmt::to_string(hop.wrong),
                                fmt::to_string(hop.repeated)});
    return section;
}

}  // namespace vosk::rig
