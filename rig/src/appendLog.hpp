#pragma once

// What a peer writes down while a run goes on. Sized before the run, so that a peer's loop never allocates.
// One writer appends, any thread reads what is published. What doesn't fit is counted, not kept.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vosk::rig {

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

}  // namespace vosk::rig
