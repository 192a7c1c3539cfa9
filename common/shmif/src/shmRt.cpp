#include <vosk/common/shmif/shmRt.hpp>

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

namespace vosk::common::shmif {

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr int ALL_WAITERS = INT_MAX;
constexpr int ONE_WAITER = 1;

void Wake(std::atomic<std::uint32_t>& word, int waiters) noexcept {
    ::syscall(SYS_futex, &word, FUTEX_WAKE, waiters, nullptr, nullptr, 0);
}

// Ends by a wake, by a signal or at the limit; the caller looks at the region in each case.
void Sleep(std::atomic<std::uint32_t>& word, SteadyClock::duration limit) noexcept {
    const auto whole = std::chrono::duration_cast<std::chrono::microseconds>(limit);
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(whole);
    const timespec relative{.tv_sec = seconds.count(),
                            .tv_nsec = std::chrono::nanoseconds{whole - seconds}.count()};
    ::syscall(SYS_futex, &word, FUTEX_WAIT, word.load(), &relative, nullptr, 0);
}

// Each reader holds a shared lock on its open region, which the system takes back when the process ends.
struct flock WholeFile(short type) noexcept {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

void MarkAsAlive(int fd) noexcept {
    auto lock = WholeFile(F_RDLCK);
    ::fcntl(fd, F_OFD_SETLK, &lock);
}

bool AnotherReaderLives(int fd) noexcept {
    auto lock = WholeFile(F_WRLCK);
    return ::fcntl(fd, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

}  // namespace

ShmWriterRT::ShmWriterRT(ShmIf& shm, const std::string& topic) {
    const std::size_t size = GetSizeOrThrow(shm, topic, ShmType::SHM_RT);
    CreateOrOpenShm(shm.GetPrefix(), topic, size);
}

ShmWriterRT::~ShmWriterRT() {
    m_region->open_count.fetch_sub(1);
}

bool ShmWriterRT::TimedSend(const void* data, std::chrono::microseconds timeout) {
    const auto start = SteadyClock::now();
    bool slot_is_ours = std::exchange(m_give_up_record, false);
    for (;;) {
        const std::uint32_t readers = m_region->reader_count.load();
        m_readers_at_put = std::min(m_readers_at_put, readers);
        if (readers == 0) {
            if (HasSuccessor(start)) MoveToSuccessor();
            return true;
        }
        slot_is_ours = slot_is_ours || m_region->SlotIsFree();
        if (slot_is_ours) {
            Put(data);
            m_readers_at_put = readers;
            return true;
        }
        if (timeout <= timeout.zero()) return false;
        const auto elapsed = SteadyClock::now() - start;
        if (elapsed >= timeout) {
            m_give_up_record = readers > m_readers_at_put;
            if (HasSuccessor(start)) MoveToSuccessor();
            return false;
        }
        Sleep(m_region->writer_wake, timeout - elapsed);
    }
}

void ShmWriterRT::TrySend(const void* data) {
    Put(data);
}

void ShmWriterRT::Put(const void* data) noexcept {
    std::memcpy(m_region->Slot(), data, m_data_size);
    m_region->write_seq.fetch_add(1);
    Wake(m_region->reader_wake, ALL_WAITERS);
}

ShmReaderRT::ShmReaderRT(ShmIf& shm, const std::string& topic) {
    const std::size_t size = GetSizeOrThrow(shm, topic, ShmType::SHM_RT);
    CreateOrOpenShm(shm.GetPrefix(), topic, size);
    Attach();
}

ShmReaderRT::~ShmReaderRT() {
    m_region->reader_count.fetch_sub(1);
    m_region->open_count.fetch_sub(1);
    m_region->read_seq.exchange(m_last_seq);
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
        const auto elapsed =
            limit <= limit.zero() ? SteadyClock::duration::zero() : SteadyClock::now() - start;
        if (elapsed >= limit) {
            FollowWriter(start);
            return false;
        }
        Sleep(m_region->reader_wake, limit - elapsed);
    }
}

void ShmReaderRT::Attach() noexcept {
    MarkAsAlive(m_fd);
    // There is one reader at a time: without another alive, those counted were killed.
    const std::uint32_t counted = m_region->reader_count.load();
    const std::uint32_t killed = AnotherReaderLives(m_fd) ? 0 : counted;
    m_region->reader_count.fetch_add(1 - killed);
    m_last_seq = m_region->write_seq.load();
    // A record already in the slot would stay there for ever: the writer waits for it to be read.
    m_region->read_seq.exchange(m_last_seq);
    Wake(m_region->writer_wake, ONE_WAITER);
}

void ShmReaderRT::FollowWriter(SteadyClock::time_point now) noexcept {
    if (!HasSuccessor(now)) return;
    m_region->reader_count.fetch_sub(1);
    MoveToSuccessor();
    Attach();
}

}  // namespace vosk::common::shmif
