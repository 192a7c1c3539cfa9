#pragma once

// Owns one file descriptor.

#include <unistd.h>

#include <utility>

namespace vosk::host {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) noexcept : m_fd{fd} {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd{std::exchange(other.m_fd, -1)} {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~UniqueFd() {
        if (m_fd != -1) ::close(m_fd);
    }

    int Get() const noexcept { return m_fd; }
    bool IsOpen() const noexcept { return m_fd != -1; }

private:
    int m_fd = -1;
};

}  // namespace vosk::host
