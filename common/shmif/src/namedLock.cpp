#include "namedLock.hpp"

#include <vosk/common/logger.hpp>

#include "sharedObject.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <ctime>
#include <string>
#include <utility>

namespace vosk::common::shmif {

namespace {

[[noreturn]] void ThrowSystemError(const char* operation, const char* name) {
    const boost::interprocess::error_info error{errno};
    throw boost::interprocess::interprocess_exception{
        error.get_error_code(), fmt::format("Failed to {} the lock of shared memory: {} ({})", operation,
                                            SystemErrorText(error.get_native_error()), name)
                                    .c_str()};
}

// The C library keeps a semaphore in a shared-memory object that is named after it. One that is too short is
// not opened: to touch the semaphore would kill the process.
FileDescriptor OpenFileOf(const char* name) {
    FileDescriptor file = OpenExisting(std::string{"/sem."} + (name + (name[0] == '/' ? 1 : 0)));
    if (!file.IsOpen() || SizeOf(file.Get()) >= sizeof(sem_t)) return file;
    errno = EINVAL;
    return FileDescriptor{-1};
}

timespec MonotonicDeadline(std::chrono::nanoseconds limit) {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const auto deadline = std::chrono::seconds{now.tv_sec} + std::chrono::nanoseconds{now.tv_nsec} + limit;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(deadline);
    return timespec{.tv_sec = seconds.count(), .tv_nsec = (deadline - seconds).count()};
}

// False if the limit passed.
bool Take(sem_t* semaphore, const char* name, std::chrono::nanoseconds limit) {
    const timespec deadline = MonotonicDeadline(limit);
    while (::sem_clockwait(semaphore, CLOCK_MONOTONIC, &deadline) != 0) {
        if (errno == ETIMEDOUT) return false;
        if (errno != EINTR) ThrowSystemError("take", name);
    }
    return true;
}

// 1 again, and never 2, with which it would lock no more: after a take-over the former holder may still come
// back and give it up once more.
void GiveBack(sem_t* semaphore) noexcept {
    int value = 0;
    if (::sem_getvalue(semaphore, &value) != 0 || value == 0) ::sem_post(semaphore);
}

bool TryLock(const FileDescriptor& file) noexcept {
    auto lock = WholeFile(F_WRLCK);
    return ::fcntl(file.Get(), F_OFD_SETLK, &lock) == 0;
}

// False if the system refuses.
bool Lock(const FileDescriptor& file) noexcept {
    auto lock = WholeFile(F_WRLCK);
    while (::fcntl(file.Get(), F_OFD_SETLKW, &lock) != 0) {
        if (errno != EINTR) return false;
    }
    return true;
}

// For a process forked meanwhile as well, which has the file open, too.
void Unlock(const FileDescriptor& file) noexcept {
    auto unlock = WholeFile(F_UNLCK);
    ::fcntl(file.Get(), F_OFD_SETLK, &unlock);
}

}  // namespace

NamedLock::NamedLock(const char* name, std::chrono::nanoseconds limit)
    : m_semaphore{OpenSemaphore(name)}, m_file{m_semaphore ? OpenFileOf(name) : FileDescriptor{-1}} {
    if (!m_file.IsOpen()) ThrowSystemError("open", name);
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(limit).count();
    for (bool logged = false; !Take(m_semaphore.get(), name, limit); logged = true) {
        if (TryLock(m_file)) {
            if (::sem_trywait(m_semaphore.get()) == 0) return;  // given back since the limit passed
            LogWarn("Lock {} of the shared-memory regions is held for more than {} ms: its holder is gone.",
                    name, milliseconds);
            return;
        }
        if (!logged) {
            LogWarn("Lock {} of the shared-memory regions is held for more than {} ms: waiting on.", name,
                    milliseconds);
        }
    }
    if (Lock(m_file)) return;  // at once, unless another has taken over in the meantime
    const int code = errno;
    GiveBack(m_semaphore.get());
    errno = code;
    ThrowSystemError("take", name);
}

NamedLock::NamedLock(Semaphore taken, FileDescriptor locked) noexcept
    : m_semaphore{std::move(taken)}, m_file{std::move(locked)} {}

NamedLock::Semaphore NamedLock::OpenSemaphore(const char* name) noexcept {
    sem_t* semaphore = ::sem_open(name, O_CREAT, 0644, 1);
    return Semaphore{semaphore == SEM_FAILED ? nullptr : semaphore};
}

std::optional<NamedLock> NamedLock::TryTake(const char* name) noexcept {
    Semaphore semaphore = OpenSemaphore(name);
    if (!semaphore) return std::nullopt;
    FileDescriptor file = OpenFileOf(name);
    if (!file.IsOpen() || !TryLock(file)) return std::nullopt;
    if (::sem_trywait(semaphore.get()) != 0) {
        Unlock(file);
        return std::nullopt;
    }
    return NamedLock{std::move(semaphore), std::move(file)};
}

// The semaphore first: while the file is locked no other holder of ours looks at its value to raise it.
NamedLock::~NamedLock() {
    if (!m_semaphore) return;
    GiveBack(m_semaphore.get());
    Unlock(m_file);
}

}  // namespace vosk::common::shmif
