#pragma once

// The region behind an RT topic, as every process sees it, and the base of the two classes that use it.
// One writer and one reader at a time, in any two processes; each object belongs to one thread.

#include <pthread.h>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace vosk::common::shmif {

// The head of the region; the slot for one record follows. A format, shared with foreign programs.
struct RtRegion {
    pthread_mutex_t mutex;                    // process-shared, locked by nobody
    std::atomic<std::uint64_t> write_seq;     // records written so far
    std::atomic<std::uint32_t> writer_wake;   // an address to sleep on, never stored to after creation
    std::atomic<std::uint32_t> reader_wake;   // the same for the reader
    std::atomic<std::uint32_t> reader_count;  // readers attached
    std::atomic<std::uint32_t>
        open_count;                       // 1 after creation; the object that takes it to 0 removes the name
    std::atomic<std::uint64_t> read_seq;  // the write_seq that the reader last took
    std::uint64_t data_size;              // of the record; written once, by the creator

    std::byte* Slot() noexcept { return reinterpret_cast<std::byte*>(this + 1); }
    bool SlotIsFree() const noexcept { return read_seq.load() >= write_seq.load(); }
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free &&
              std::atomic<std::uint32_t>::is_always_lock_free);
static_assert(sizeof(pthread_mutex_t) == 40);
static_assert(offsetof(RtRegion, mutex) == 0 && offsetof(RtRegion, write_seq) == 40);
static_assert(offsetof(RtRegion, writer_wake) == 48 && offsetof(RtRegion, reader_wake) == 52);
static_assert(offsetof(RtRegion, reader_count) == 56 && offsetof(RtRegion, open_count) == 60);
static_assert(offsetof(RtRegion, read_seq) == 64 && offsetof(RtRegion, data_size) == 72);
static_assert(sizeof(RtRegion) == 80);

class NamedLock;

class ShmBaseRT {
public:
    ShmBaseRT(const ShmBaseRT&) = delete;
    ShmBaseRT& operator=(const ShmBaseRT&) = delete;
    virtual ~ShmBaseRT();

    bool IsValid() const noexcept { return m_valid && m_region != nullptr && m_fd != -1; }

protected:
    // How often at most a side that nobody answers looks for a successor of its region.
    static constexpr std::chrono::nanoseconds LOOK_INTERVAL = std::chrono::seconds{1};

    explicit ShmBaseRT(std::chrono::nanoseconds look_interval) noexcept : m_look_interval{look_interval} {}

    // Opens the region, or makes it; the size is that of the record. An unfinished region, whose creator was
    // killed, is finished. Throws std::runtime_error if the system refuses or the region is of another size;
    // a region that is refused stays as it was. Hands on the lock of all regions, for what else belongs to
    // the opening.
    NamedLock CreateOrOpenShm(const std::string& prefix, const std::string& topic, std::size_t size);

    // True if another program has removed the name of this region and made a new one under it: whoever still
    // holds the old one talks to nobody. Looks once a look interval at most, since it asks the system.
    bool HasSuccessor(std::chrono::steady_clock::time_point now) noexcept;

    // Gives up this region and opens the one that now has its name, under the lock of all regions. False,
    // with the old one kept, if that fails.
    bool MoveToSuccessor(const NamedLock& held) noexcept;

    int m_fd = -1;
    RtRegion* m_region = nullptr;
    std::size_t m_region_size = 0;
    std::size_t m_data_size = 0;
    std::string m_name;
    bool m_valid = false;

private:
    bool NameIsStillOurs() const noexcept;
    void Unmap() noexcept;

    const std::chrono::nanoseconds m_look_interval;
    std::chrono::steady_clock::time_point m_next_look{};
};

}  // namespace vosk::common::shmif
