#pragma once

// The flowgraph of field stabilisation, in a process of its own: takes each record of the host out of its
// mailbox, integrates the error, and puts the commands into the other. Integrator and sample counts go with
// the process.

#include "clock.hpp"

#include <vosk/defs/shmRecords.hpp>

#include <string>

namespace vosk::rig {

struct FlowgraphOptions {
    std::string shm_prefix;
    double gain = 0.4;
    double leak = 0.999;
    int priority = 0;
    int log = -1;            // descriptor to which a FlowgraphRecord is written for each record answered
    std::uint32_t life = 0;  // counts the processes of a run
};

struct FlowgraphRecord {
    common::shmif::FieldStablizationTopicIn in;
    common::shmif::FieldStablizationTopicOut out;
    time_point taken;
    time_point given;
    std::uint32_t life = 0;
    std::uint32_t delivered = 0;  // 0: the mailbox stayed full
};

// Until SIGTERM, or for good. Returns the exit code.
int RunFlowgraph(const FlowgraphOptions& options);

}  // namespace vosk::rig
