#include "namedLock.hpp"

#include <vosk/common/logger.hpp>

#include <fcntl.h>
#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <ctime>

namespace vosk::common::shmif {

namespace {

[[noreturn]] void ThrowSystemError() {
    throw boost::interprocess::interprocess_exception{boost::interprocess::error_info{errno}};
}

timespec MonotonicDeadline(std::chrono::nanoseconds limit) {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const auto deadline = std::chrono::seconds{now.tv_sec} + std::chrono::nanoseconds{now.tv_nsec} + limit;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(deadline);
    return timespec{.tv_sec = seconds.count(), .tv_nsec = (deadline - seconds).count()};
}

// False if the deadline passed.
bool Take(sem_t* semaphore, const timespec& deadline) {
    while (::sem_clockwait(semaphore, CLOCK_MONOTONIC, &deadline) != 0) {
        if (errno == ETIMEDOUT) return false;
        if (errno != EINTR) ThrowSystemError();
    }
    return true;
}

}  // namespace

NamedLock::NamedLock(const char* name, std::chrono::nanoseconds limit)
    : m_semaphore{::sem_open(name, O_CREAT, 0644, 1)} {
    if (m_semaphore == SEM_FAILED) ThrowSystemError();
    if (Take(m_semaphore, MonotonicDeadline(limit))) return;
    LogWarn("Lock {} of the shared-memory regions is held for more than {} ms: its holder is taken for dead.",
            name, std::chrono::duration_cast<std::chrono::milliseconds>(limit).count());
}

NamedLock::~NamedLock() {
    // After a take-over the former holder may still come back; the value must not rise above 1 then.
    int value = 0;
    if (::sem_getvalue(m_semaphore, &value) != 0 || value == 0) ::sem_post(m_semaphore);
    ::sem_close(m_semaphore);
}

}  // namespace vosk::common::shmif
