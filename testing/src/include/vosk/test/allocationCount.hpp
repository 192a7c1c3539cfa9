#pragma once

// Calls of operator new in any form, of a program that links vosk_allocation_count. Only what is asked for
// through operator new shows, not a malloc of a C library.

#include <cstddef>

namespace vosk::test {

std::size_t AllocationsOfThisThread() noexcept;
std::size_t AllocationsOfAllThreads() noexcept;

}  // namespace vosk::test
