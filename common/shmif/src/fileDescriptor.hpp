#pragma once

// An open file, its status, and the lock that shows whether its holder lives.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <optional>
#include <utility>

namespace vosk::common::shmif {

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) noexcept : m_fd{fd} {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_fd{other.Release()} {}
    FileDescriptor& operator=(FileDescriptor&&) = delete;
    ~FileDescriptor() { Close(); }

    bool IsOpen() const noexcept { return m_fd != -1; }
    int Get() const noexcept { return m_fd; }
    int Release() noexcept { return std::exchange(m_fd, -1); }
    void Close() noexcept {
        if (IsOpen()) ::close(Release());
    }

private:
    int m_fd;
};

inline std::optional<struct stat> StatOf(int fd) noexcept {
    struct stat status {};
    if (::fstat(fd, &status) != 0) return std::nullopt;
    return status;
}

// For the locks that belong to an open file and not to a process (F_OFD_...): the system takes them back with
// the last descriptor, so at the latest when the process ends.
inline struct flock WholeFile(short type) noexcept {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

}  // namespace vosk::common::shmif
