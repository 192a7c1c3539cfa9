#pragma once

// Takes M4 from the telescope's control (CCS) to an instrument (INS) and back, in steps: the mirror gets
// nothing for a while, the reference shape is brought up to date, the first command of the new source is
// thrown away. A change of control mode starts it, on the host's thread; AoTasks feeds it with each cycle's
// event and obeys the source that it names. State and source are atomics without a lock: a change of mode in
// the middle of a cycle can be overwritten by that cycle's event, or the reverse, until the next change of
// mode.

#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/valueTypes.hpp>

#include <atomic>
#include <cstdint>

namespace vosk::lumo {

using defs::time_point;

class VoskHandoverManager {
public:
    // In brackets the source while in the state.
    enum State : int {
        IDLE = 0,                       // telescope control, or no handover yet (OFF at first, then CCS)
        HANDOVER_UPDATE_REF_SHAPE = 1,  // waits for AoTasks to update the reference shape (NONE)
        HANDOVER_WAIT_INS_CMD = 2,  // waits for the first valid instrument command, to be discarded (NONE)
        HANDOVER_WAIT_NEXT_INS_CMD = 3,  // waits for the next (NONE)
        INS_CONTROL = 4,                 // handover complete (INS)
        HANDBACK_WAIT_CCS_CMD = 5,       // waits for the first telescope cycle, to be discarded (NONE)
        HANDBACK_WAIT_NEXT_CCS_CMD = 6,  // waits for the next (NONE)
    };

    // Whether M4 is on its way from one source to the other.
    static constexpr bool IsOnTheWay(int state) { return state != IDLE && state != INS_CONTROL; }

    VoskHandoverManager(const VoskHandoverManager&) = delete;
    VoskHandoverManager& operator=(const VoskHandoverManager&) = delete;

    // The first call attaches the object to the control mode: changes before it reach no handover.
    static VoskHandoverManager& GetInstance();

    // Back to the first values, and attached once more: for use after VoskTelescopeStateManager::Reset, which
    // has dropped the former attachment; ResetControlState does both. The host's thread, while no worker
    // runs.
    void Reset();

    // The host's thread, as observer of the control mode.
    void ControlModeChangeCallback(defs::VoskControlMode from, defs::VoskControlMode to);

    // The thread of AoTasks: one of its cycles, whose wavefront command is `valid` or not. Where the
    // reference shape is due, `update_ref_shape()` comes first: it must be in force when that command is
    // processed.
    template <class UpdateRefShape>
    void RegisterCycle(defs::VoskControlMode mode, bool valid, UpdateRefShape&& update_ref_shape) {
        if (!defs::IsInsDriven(mode)) return RegisterCcsCommandReceived(mode);
        const int state = GetState();
        if (state == INS_CONTROL) return;
        if (state == HANDOVER_UPDATE_REF_SHAPE) {
            update_ref_shape();
            RegisterM4RefShapeUpdate();
        }
        RegisterInsCommandReceived(valid, mode);
    }

    // The single events of a cycle. Those that don't fit the state are dropped.
    void RegisterM4RefShapeUpdate();
    void RegisterInsCommandReceived(bool valid, defs::VoskControlMode mode);
    void RegisterCcsCommandReceived(defs::VoskControlMode mode);
    void RecordM4CommandSentTimestamp(const time_point& time, defs::VoskControlMode mode,
                                      defs::AoCommandSource source);

    // The thread of AoTasks, once a cycle after RegisterCycle: the source for which this cycle sends. A
    // source that does not fit the mode, as it may stand there around a change of mode, counts as NONE: its
    // command would reach M4 outside the handover. Counts and logs.
    defs::AoCommandSource SourceOfCycle(defs::VoskControlMode mode);

    // Any thread, lock-free.
    defs::AoCommandSource GetM4CmdSource() const { return m_m4_cmd_source.load(); }
    int GetState() const { return m_state.load(); }
    // Whether a change of mode has gone wrong for good: no source has fitted for more cycles than any
    // handover takes. Only the next change between a telescope-driven and an instrument-driven mode mends it.
    bool IsModeToBeSetAgain() const;

    // A source outside the enumeration ends in std::runtime_error "Unknown enum value.", after it was stored.
    void SetM4CmdSource(defs::AoCommandSource source);

    // Logs how long the handover took.
    void PrintStats() const;

private:
    VoskHandoverManager();

    void Attach();
    void StartHandover();
    void StartHandback();

    std::atomic<int> m_state = IDLE;
    // Send times of the first cycles with these sources since the handover's start. The host clears them
    // while a cycle may be recording, hence atomics.
    std::atomic<time_point> m_handover_start{};
    std::atomic<time_point> m_first_none_cmd_time{};
    std::atomic<time_point> m_first_ins_cmd_time{};
    std::atomic<defs::AoCommandSource> m_m4_cmd_source = defs::AoCommandSource::OFF;
    std::atomic<std::uint32_t> m_cycles_without_source = 0;  // in a row; AoTasks counts, the host resets
};

// Control mode, observers and handover in their first state, the manager attached exactly once; the active
// camera stays. The manager attaches itself when it comes into being and again when it is reset, so the order
// of the three matters, and this is the place that knows it. The host's thread, while no worker runs.
void ResetControlState();

}  // namespace vosk::lumo
