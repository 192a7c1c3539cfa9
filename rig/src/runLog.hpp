#pragma once

// What the peers write down while a run goes on, and the setpoints on their way from M4 to whoever checks
// them. Everything is sized before the run, so that a peer's loop never allocates. Each log has one writer;
// readers may look at any time at what was published by then.

#include "scenario.hpp"

#include <atomclk/atomClk.hpp>
#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/sizes.hpp>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace vosk::rig {

using atomclk::AtomClk;
using time_point = AtomClk::time_point;

// One writer appends, any thread reads what is published. What doesn't fit is counted, not kept.
template <class T>
class AppendLog {
public:
    explicit AppendLog(std::size_t capacity) : m_entries(capacity) {}

    // Writer only. An entry may still be changed until it is published.
    T* Append() {
        if (m_written == m_entries.size()) {
            m_refused.fetch_add(1, std::memory_order_relaxed);
            return nullptr;
        }
        return &m_entries[m_written++];
    }
    T& Written(std::size_t index) { return m_entries[index]; }
    std::size_t WrittenCount() const { return m_written; }
    void Publish(std::size_t count) { m_published.store(count, std::memory_order_release); }

    std::span<const T> Entries() const {
        return {m_entries.data(), m_published.load(std::memory_order_acquire)};
    }
    std::uint64_t Refused() const { return m_refused.load(std::memory_order_relaxed); }

private:
    std::vector<T> m_entries;
    std::size_t m_written = 0;  // writer only
    std::atomic<std::size_t> m_published{0};
    std::atomic<std::uint64_t> m_refused{0};
};

struct CommandRecord {
    std::uint64_t number = 0;  // of the wavefront, which gives the content
    time_point time_stamp;     // on the instrument's grid, in the packet headers
    time_point sent;
    defs::sample_id_t sample_id = 0;
    bool valid = true;
    std::optional<FaultKind> fault;
};

enum class AnswerFate { Sent, WrongSampleId, Harmed, NotSent };

struct SetpointRecord {
    static constexpr std::size_t NO_SLOT = static_cast<std::size_t>(-1);

    time_point planned;  // from the packet headers
    time_point arrived;  // of the first packet
    defs::sample_id_t sample_id = 0;
    bool in_order = false;      // its packets came in the order of their numbers
    bool marked_valid = false;  // the word behind the vector is 1
    std::size_t slot = NO_SLOT;

    AnswerFate answer = AnswerFate::NotSent;
    std::optional<FaultKind> answer_fault;
    time_point answer_sent;  // 0 when none was
};

// Setpoint vectors between the thread that receives them and the one that checks them: a ring.
class SetpointRing {
public:
    using Vector = std::array<float, defs::M4_CMD_SIZE>;

    explicit SetpointRing(std::size_t capacity) : m_slots(capacity) {}

    // Receiving thread: a slot to write, or NO_SLOT while the checking thread is a whole ring behind.
    std::size_t Take() {
        if (m_taken - m_given_back.load(std::memory_order_acquire) == m_slots.size())
            return SetpointRecord::NO_SLOT;
        return m_taken++ % m_slots.size();
    }
    // Checking thread: gives back the oldest slot taken.
    void GiveBack() { m_given_back.fetch_add(1, std::memory_order_release); }

    Vector& operator[](std::size_t slot) { return m_slots[slot]; }

private:
    std::vector<Vector> m_slots;
    std::size_t m_taken = 0;  // receiving thread only
    std::atomic<std::size_t> m_given_back{0};
};

// When which control mode was asked for, and when the host had said yes. Any thread.
class ModeTimeline {
public:
    struct Change {
        defs::VoskControlMode mode;
        time_point asked;
        time_point done;  // the far future while the host hasn't answered
    };

    // Returns the change's index for Complete.
    std::size_t Ask(defs::VoskControlMode mode, time_point now);
    void Complete(std::size_t change, time_point now);

    // Modes that may have been in force at some moment from `from` to `to`: at most a few.
    std::vector<defs::VoskControlMode> InForce(time_point from, time_point to) const;
    std::vector<Change> Changes() const;

    // Changes from a telescope-driven mode to an instrument-driven one that were asked for by then.
    std::size_t HandoversAskedBy(time_point time) const;

private:
    mutable std::mutex m_mutex;
    std::vector<Change> m_changes;  // guarded by m_mutex
};

// When a peer was away. Any thread.
class Absences {
public:
    struct Absence {
        time_point from;
        time_point to;  // the far future while it lasts
    };

    void Begin(time_point now);
    void End(time_point now);
    std::vector<Absence> All() const;

private:
    mutable std::mutex m_mutex;
    std::vector<Absence> m_absences;  // guarded by m_mutex
};

}  // namespace vosk::rig
