#pragma once

// The machine-wide lock under which RT regions are opened and closed: a named semaphore with the value 1,
// which all programs that use such regions share, and which stays when they end. A semaphore does not show
// whether its holder lives. A holder of ours also locks the semaphore's file, and the system takes that lock
// back when the process ends.

#include "fileDescriptor.hpp"

#include <semaphore.h>
#include <chrono>
#include <memory>
#include <optional>

namespace vosk::common::shmif {

inline constexpr const char* REGIONS_LOCK = "/shm_mtx";

// Opening a region takes milliseconds; whoever holds the lock for longer than this may have been killed.
inline constexpr std::chrono::milliseconds REGIONS_LOCK_LIMIT{2000};

class NamedLock {
public:
    // Takes the lock. If the semaphore isn't given back within the limit and its file is locked by nobody,
    // the holder counts as dead. One caller at a time takes the lock over, with a WARN, since it locks the
    // file. The call waits for a holder that lives. Throws
    // boost::interprocess::interprocess_exception if the system refuses the semaphore or its file.
    explicit NamedLock(const char* name = REGIONS_LOCK, std::chrono::nanoseconds limit = REGIONS_LOCK_LIMIT);
    ~NamedLock();
    NamedLock(NamedLock&& other) = default;
    NamedLock& operator=(NamedLock&&) = delete;

    // Takes the lock if it is free: no wait and no take-over, for callers that must not wait.
    static std::optional<NamedLock> TryTake(const char* name = REGIONS_LOCK) noexcept;

private:
    struct CloseSemaphore {
        void operator()(sem_t* semaphore) const noexcept { ::sem_close(semaphore); }
    };
    using Semaphore = std::unique_ptr<sem_t, CloseSemaphore>;

    NamedLock(Semaphore taken, FileDescriptor locked) noexcept;
    static Semaphore OpenSemaphore(const char* name) noexcept;

    Semaphore m_semaphore;  // null once moved from
    FileDescriptor m_file;
};

}  // namespace vosk::common::shmif
