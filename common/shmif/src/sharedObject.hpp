#pragma once

// The objects under /dev/shm in which RT regions and queues live, and the refusal of one that is of no use.

#include "fileDescriptor.hpp"

#include <cstddef>
#include <optional>
#include <string>

namespace vosk::common::shmif {

// The beginnings of refusals.
inline constexpr const char* NO_OBJECT = "Failed to create/open shared memory: ";
inline constexpr const char* NO_PAGES = "Failed to resize shared memory: ";
inline constexpr const char* NO_MAPPING = "Failed to map shared memory: ";
inline constexpr const char* SIZE_MISMATCH = "Data size mismatch in shared memory";

// Throws std::runtime_error with the text and the object's name.
[[noreturn]] void Refuse(const std::string& text, const std::string& name);

// Of an error of an object's system call. A refusal of rights names the usual reason.
std::string SystemErrorText(int code);

// For reading and writing. Not open, with errno set, if the system refuses.
FileDescriptor OpenExisting(const std::string& name) noexcept;

// Null for anything but a regular file.
std::optional<std::size_t> SizeOf(int fd) noexcept;

// 0 for a descriptor that is not open.
ino_t InodeOf(int fd) noexcept;

// Gives the object all pages of that size, and this length if it is shorter. A page that is asked for later,
// when /dev/shm is full, kills the process. Returns the system's error code, 0 if done.
int Reserve(int fd, std::size_t size) noexcept;

}  // namespace vosk::common::shmif
