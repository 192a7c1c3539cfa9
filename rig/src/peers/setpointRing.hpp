#pragma once

// Setpoint vectors between the thread that receives them and the one that checks them: a ring, sized before
// the run.

#include "peers/loopRecords.hpp"

#include <array>
#include <atomic>
#include <cstddef>
#include <vector>

namespace vosk::rig {

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
    const Vector& operator[](std::size_t slot) const { return m_slots[slot]; }

private:
    std::vector<Vector> m_slots;
    std::size_t m_taken = 0;  // receiving thread only
    std::atomic<std::size_t> m_given_back{0};
};

}  // namespace vosk::rig
