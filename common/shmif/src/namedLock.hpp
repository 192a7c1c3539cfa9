#pragma once

// The machine-wide lock under which RT regions are opened and closed: a named semaphore with the value 1,
// which all programs that use such regions share, and which stays when they end.

#include <semaphore.h>
#include <chrono>
#include <optional>

namespace vosk::common::shmif {

inline constexpr const char* REGIONS_LOCK = "/shm_mtx";

// Opening a region takes milliseconds; whoever holds the lock for longer than this was killed with it.
inline constexpr std::chrono::milliseconds REGIONS_LOCK_LIMIT{2000};

class NamedLock {
public:
    // Takes the lock. If it isn't given back within the limit, its holder counts as dead and the lock is
    // taken over, with a WARN. Throws boost::interprocess::interprocess_exception if the system refuses the
    // semaphore.
    explicit NamedLock(const char* name = REGIONS_LOCK, std::chrono::nanoseconds limit = REGIONS_LOCK_LIMIT);
    ~NamedLock();
    NamedLock(NamedLock&& other) noexcept;
    NamedLock& operator=(NamedLock&&) = delete;

    // Takes the lock if it is free: no wait and no take-over, for those who must not be held up.
    static std::optional<NamedLock> TryTake(const char* name = REGIONS_LOCK) noexcept;

private:
    explicit NamedLock(sem_t* taken) noexcept : m_semaphore{taken} {}

    sem_t* m_semaphore;  // null once moved from
};

}  // namespace vosk::common::shmif
