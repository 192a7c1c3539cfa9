#pragma once

// The record of the control state, kept for the host to poll: mode, command source, guide-probe centering.
// RuntimeMonitor holds the one object; the host's thread and AoTasks write it. All operations are for any
// thread.

#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/valueTypes.hpp>

#include <cstdint>
#include <mutex>

namespace vosk::lumo {

using defs::time_point;

// What the host reads. The initial values are those after StateData::ResetData.
struct StateTopic {
    time_point time{};     // of the last change, except of mode_change_in_progress alone
    bool changed = false;  // since ResetData
    defs::VoskControlMode control_mode = defs::VoskControlMode::TEL_DRIVEN;
    bool mode_change_in_progress = false;
    std::uint64_t reserved_time = 0;
    std::uint32_t reserved_mode = 1;
    defs::AoCommandSource ao_cmd_source = defs::AoCommandSource::OFF;
    bool gp_centering = false;
    int primary_gp = -1;
    bool m1_offload = false;
    bool guiding = false;
};

class StateData {
public:
    StateData() = default;
    virtual ~StateData() = default;
    StateData(const StateData&) = delete;
    StateData& operator=(const StateData&) = delete;

    void SetGPCentering(bool enabled);
    void SetPrimaryGP(int gp);       // for the host: the library has no part in it
    void SetM1Offload(bool active);  // for the host
    void SetGuiding(bool active);    // for the host
    void SetAoCmdSource(defs::AoCommandSource source);

    // Opens a mode change, SetModeChangeCompleted closes it, and leaves the time alone.
    void SetControlMode(defs::VoskControlMode mode);
    void SetModeChangeCompleted();

    StateTopic GetTopicData() const;
    void ResetData();

private:
    template <class T>
    void Set(T StateTopic::*field, T value);
    void MarkChanged();

    mutable std::mutex m_mutex;
    StateTopic m_topic;  // guarded by m_mutex
};

}  // namespace vosk::lumo
