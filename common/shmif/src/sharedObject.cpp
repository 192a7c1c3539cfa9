#include "sharedObject.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace vosk::common::shmif {

void Refuse(const std::string& text, const std::string& name) {
    throw std::runtime_error{text + " (" + name + ")"};
}

std::string SystemErrorText(int code) {
    const std::string text = std::system_category().message(code);
    return code == EACCES ? text + ", another user left it in /dev/shm" : text;
}

FileDescriptor OpenExisting(const std::string& name) noexcept {
    return FileDescriptor{::shm_open(name.c_str(), O_RDWR, 0)};
}

std::optional<std::size_t> SizeOf(int fd) noexcept {
    const auto status = StatOf(fd);
    if (!status || !S_ISREG(status->st_mode)) return std::nullopt;
    return static_cast<std::size_t>(status->st_size);
}

ino_t InodeOf(int fd) noexcept {
    const auto status = StatOf(fd);
    return status ? status->st_ino : 0;
}

int Reserve(int fd, std::size_t size) noexcept {
    int code = EINTR;
    while (code == EINTR) code = ::posix_fallocate(fd, 0, static_cast<off_t>(size));
    return code;
}

}  // namespace vosk::common::shmif
