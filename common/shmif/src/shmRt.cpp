#include <vosk/common/shmif/shmRt.hpp>

#include "fileDescriptor.hpp"
#include "namedLock.hpp"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <climits>
#include <cstring>

namespace vosk::common::shmif {

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr int ALL_WAITERS = INT_MAX;
constexpr int ONE_WAITER = 1;

void Wake(std::atomic<std::uint32_t>& word, int waiters) noexcept {
    ::syscall(SYS_futex, &word, FUTEX_WAKE, waiters, nullptr, nullptr, 0);
}

// Ends by a wake, by a signal or at the limit; the caller looks at the region in each case.
void Sleep(std::atomic<std::uint32_t>& word, std::chrono::microseconds limit) noexcept {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
    const timespec relative{.tv_sec = seconds.count(),
                            .tv_nsec = std::chrono::nanoseconds{limit - seconds}.count()};
    ::syscall(SYS_futex, &word, FUTEX_WAIT, word.load(), &relative, nullptr, 0);
}

// Each reader holds a shared lock on its open region, which the system takes back when the process ends.
void MarkAsAlive(int fd) noexcept {
    auto lock = WholeFile(F_RDLCK);
    ::fcntl(fd, F_OFD_SETLK, &lock);
}

bool AnotherReaderLives(int fd) noexcept {
    auto lock = WholeFile(F_WRLCK);
    return ::fcntl(fd, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

// Never below 0, whoever else has taken this reader off the count.
void TakeOff(std::atomic<std::uint32_t>& reader_count) noexcept {
    std::uint32_t seen = reader_count.load();
    while (seen > 0 && !reader_count.compare_exchange_weak(seen, seen - 1)) {
    }
}

// A peer that was taken for killed and then closes takes a live reader off the count.
void CountOneAtLeast(std::atomic<std::uint32_t>& reader_count) noexcept {
    std::uint32_t nobody = 0;
    if (reader_count.load() == nobody) reader_count.compare_exchange_strong(nobody, 1);
}

// Never lower: another reader may have taken a later record. True if it was below.
bool RaiseTo(std::atomic<std::uint64_t>& read_seq, std::uint64_t taken) noexcept {
    std::uint64_t seen = read_seq.load();
    while (seen < taken) {
        if (read_seq.compare_exchange_weak(seen, taken)) return true;
    }
    return false;
}

}  // namespace

ShmWriterRT::ShmWriterRT(ShmIf& shm, const std::string& topic, std::chrono::nanoseconds look_interval)
    : ShmBaseRT{look_interval} {
    const std::size_t size = GetSizeOrThrow(shm, topic, ShmType::SHM_RT);
    const NamedLock lock = CreateOrOpenShm(shm.GetPrefix(), topic, size);
    TakeOverSlot();
}

ShmWriterRT::~ShmWriterRT() {
    m_region->open_count.fetch_sub(1);
}

bool ShmWriterRT::TimedSend(const void* data, std::chrono::microseconds timeout) {
    const auto start = SteadyClock::now();
    const bool may_wait = timeout > timeout.zero();
    for (;;) {
        const std::uint32_t readers = m_region->reader_count.load();
        m_readers_at_put = std::min(m_readers_at_put, readers);
        if (readers == 0) {
            FollowReader(start);
            return true;
        }
        if (m_region->SlotIsFree() || (may_wait && m_give_up_record)) {
            Put(data);
            m_readers_at_put = readers;
            return true;
        }
        const auto elapsed = may_wait ? SteadyClock::now() - start : SteadyClock::duration::zero();
        // In microseconds: a limit that stands for "as long as it takes" has no place in nanoseconds.
        if (std::chrono::floor<std::chrono::microseconds>(elapsed) >= timeout) {
            if (!FollowReader(start) && may_wait) m_give_up_record = readers > m_readers_at_put;
            return false;
        }
        Sleep(m_region->writer_wake, timeout - std::chrono::ceil<std::chrono::microseconds>(elapsed));
    }
}

void ShmWriterRT::TrySend(const void* data) {
    if (m_region->reader_count.load() == 0) FollowReader(SteadyClock::now());
    Put(data);
}

// A record found in the slot of a region just opened. A live reader of this kind will take it, having freed
// the slot when it attached; any other may have found it there as well.
void ShmWriterRT::TakeOverSlot() noexcept {
    m_readers_at_put = AnotherReaderLives(m_fd) ? m_region->reader_count.load() : 0;
    m_give_up_record = false;
}

bool ShmWriterRT::FollowReader(SteadyClock::time_point now) noexcept {
    if (!HasSuccessor(now)) return false;
    const auto lock = NamedLock::TryTake();
    if (!lock || !MoveToSuccessor(*lock)) return false;
    TakeOverSlot();
    return true;
}

void ShmWriterRT::Put(const void* data) noexcept {
    m_give_up_record = false;
    std::memcpy(m_region->Slot(), data, m_data_size);
    m_region->write_seq.fetch_add(1);
    Wake(m_region->reader_wake, ALL_WAITERS);
}

ShmReaderRT::ShmReaderRT(ShmIf& shm, const std::string& topic, std::chrono::nanoseconds look_interval)
    : ShmBaseRT{look_interval} {
    const std::size_t size = GetSizeOrThrow(shm, topic, ShmType::SHM_RT);
    const NamedLock lock = CreateOrOpenShm(shm.GetPrefix(), topic, size);
    Attach();
}

ShmReaderRT::~ShmReaderRT() {
    TakeOff(m_region->reader_count);
    m_region->open_count.fetch_sub(1);
    RaiseTo(m_region->read_seq, m_last_seq);
    Wake(m_region->writer_wake, ONE_WAITER);
}

bool ShmReaderRT::TimedReceive(void* data, std::chrono::nanoseconds limit) {
    const auto start = SteadyClock::now();
    for (;;) {
        const std::uint64_t seq = m_region->write_seq.load();
        if (m_last_seq < seq) {
            std::memcpy(data, m_region->Slot(), m_data_size);
            m_last_seq = seq;
            m_region->read_seq.exchange(seq);
            Wake(m_region->writer_wake, ONE_WAITER);
            return true;
        }
        // A reader that closed in the meantime may have left the sequence of its own last record.
        if (RaiseTo(m_region->read_seq, m_last_seq)) Wake(m_region->writer_wake, ONE_WAITER);
        const auto elapsed =
            limit <= limit.zero() ? SteadyClock::duration::zero() : SteadyClock::now() - start;
        if (elapsed >= limit) {
            CountOneAtLeast(m_region->reader_count);
            FollowWriter(start);
            return false;
        }
        Sleep(m_region->reader_wake, std::chrono::floor<std::chrono::microseconds>(limit - elapsed));
    }
}

void ShmReaderRT::Attach() noexcept {
    MarkAsAlive(m_fd);
    // There is one reader at a time: without another alive, those counted were killed. One that is closing
    // goes off the count before it stops being alive.
    if (AnotherReaderLives(m_fd)) {
        m_region->reader_count.fetch_add(1);
    } else {
        m_region->reader_count.store(1);
    }
    m_last_seq = m_region->write_seq.load();
    // A record already in the slot would stay there for ever: the writer waits for it to be read.
    m_region->read_seq.exchange(m_last_seq);
    Wake(m_region->writer_wake, ONE_WAITER);
}

void ShmReaderRT::FollowWriter(SteadyClock::time_point now) noexcept {
    if (!HasSuccessor(now)) return;
    const auto lock = NamedLock::TryTake();
    if (!lock) return;
    TakeOff(m_region->reader_count);
    if (MoveToSuccessor(*lock)) {
        Attach();
    } else {
        m_region->reader_count.fetch_add(1);
    }
}

}  // namespace vosk::common::shmif
