#include "namedLock.hpp"

#include <vosk/common/logger.hpp>

#include <fcntl.h>
#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <ctime>
#include <utility>

namespace vosk::common::shmif {

namespace {

[[noreturn]] void ThrowSystemError() {
    throw boost::interprocess::interprocess_exception{boost::interprocess::error_info{errno}};
}

sem_t* Open(const char* name) noexcept {
    return ::sem_open(name, O_CREAT, 0644, 1);
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

NamedLock::NamedLock(const char* name, std::chrono::nanoseconds limit) : m_semaphore{Open(name)} {
    if (m_semaphore == SEM_FAILED) ThrowSystemError();
    try {
        if (Take(m_semaphore, MonotonicDeadline(limit))) return;
    } catch (...) {
        ::sem_close(m_semaphore);
        throw;
    }
    LogWarn("Lock {} of the shared-memory regions is held for more than {} ms: its holder is taken for dead.",
            name, std::chrono::duration_cast<std::chrono::milliseconds>(limit).count());
}

NamedLock::NamedLock(NamedLock&& other) noexcept : m_semaphore{std::exchange(other.m_semaphore, nullptr)} {}

std::optional<NamedLock> NamedLock::TryTake(const char* name) noexcept {
    sem_t* semaphore = Open(name);
    if (semaphore == SEM_FAILED) return std::nullopt;
    if (::sem_trywait(semaphore) == 0) return NamedLock{semaphore};
    ::sem_close(semaphore);
    return std::nullopt;
}

NamedLock::~NamedLock() {
    if (m_semaphore == nullptr) return;
    // After a take-over the former holder may still come back and give the lock up once more: whoever finds
    // it free leaves it at 1.
    int value = 0;
    if (::sem_getvalue(m_semaphore, &value) != 0 || value == 0) ::sem_post(m_semaphore);
    ::sem_close(m_semaphore);
}

}  // namespace vosk::common::shmif
