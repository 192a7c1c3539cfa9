#pragma once

// A flowgraph, in a process of its own: takes each record of the host out of one mailbox, integrates the
// error, and puts the commands into another. Integrator and sample counts go with the process.

#include "clock.hpp"
#include "scenario.hpp"

#include <vosk/defs/shmRecords.hpp>

#include <array>
#include <string>
#include <utility>

namespace vosk::rig {

inline constexpr std::array<std::pair<const char*, FlowgraphKind>, 2> FLOWGRAPH_KINDS{
    {{"field", FlowgraphKind::FieldStabilisation}, {"gpao", FlowgraphKind::Gpao}}};

struct FlowgraphOptions {
    FlowgraphKind kind = FlowgraphKind::FieldStabilisation;
    std::string shm_prefix;
    double gain = 0.4;
    double tt_gain = 0.4;  // of GPAO's tip and tilt
    double leak = 0.999;
    double error_scale = 1.0;  // of the mean of the four errors
    double m5_share = 1.0;     // that each mirror gets of the integrator's value
    double ms_share = 0.25;
    double u4_share = -0.5;
    int priority = 0;
    int log = -1;            // descriptor to which a FlowgraphRecord is written for each record taken
    std::uint32_t life = 0;  // counts the processes of a run
};

// Open: the process ended before it knew. Refused: the mailbox stayed full.
enum class Delivery : std::uint32_t { Open, Done, Refused };

struct FlowgraphEntry {
    time_point taken;
    time_point given;  // unless the delivery is open
    std::uint32_t life = 0;
    Delivery delivery = Delivery::Open;
};

template <class In, class Out>
struct FlowgraphRecord : FlowgraphEntry {
    In in;
    Out out;
};

using FieldRecord =
    FlowgraphRecord<common::shmif::FieldStablizationTopicIn, common::shmif::FieldStablizationTopicOut>;
using GpaoRecord = FlowgraphRecord<common::shmif::GpaoTopicIn, common::shmif::GpaoTopicOut>;

// Until SIGTERM, or for good. Returns the exit code.
int RunFlowgraph(const FlowgraphOptions& options);

}  // namespace vosk::rig
