#pragma once

// What the peers of field stabilisation wrote down, as their judges take it.

#include "peers/absences.hpp"
#include "peers/flowgraphProcess.hpp"
#include "peers/recordStreams.hpp"
#include "runFacts.hpp"

#include <vosk/defs/wireRecords.hpp>

#include <span>
#include <vector>

namespace vosk::rig {

// What the rig did to a peer.
struct Trouble {
    std::vector<Absences::Absence> away;
    std::vector<time_point> spoilt;  // times of samples that the host got late or not at all
};

struct FieldFacts {
    template <class Record>
    using Samples = std::span<const Sample<Record>>;

    // Those that the host took.
    Samples<defs::WfsPayload> errors;
    Samples<defs::M5PttAct::Payload> m5_positions;
    Samples<pfs::PFSTargetData> measurements;

    std::span<const FieldRecord> flowgraph;
    Samples<defs::M5Command::Payload> m5_commands;
    Samples<pfs::PFSCorrection> pfs_corrections;
    Samples<defs::MSCorrection> ms_corrections;

    std::span<const HostCommand> commands;
    time_point first;  // of all grids
    time_point until;  // what the flowgraph gave after this need not have arrived
    Trouble errors_trouble{};
    Trouble m5_trouble{};
    Trouble pfs_trouble{};
    Trouble ms_trouble{};
    std::vector<Absences::Absence> flowgraph_away{};
};

}  // namespace vosk::rig
