#pragma once

// A check of a caller's contract that stays on in every build: a violation is a bug, and going on would move
// a mirror on wrong data. Prints the condition as it stands in the code, and aborts.

namespace vosk::common {

[[noreturn]] void AssertionFailed(const char* condition, const char* file, int line) noexcept;

}  // namespace vosk::common

// A macro, for the condition's own text.
#define VOSK_ASSERT(condition)                           \
    (static_cast<bool>(condition) ? static_cast<void>(0) \
                                  : ::vosk::common::AssertionFailed(#condition, __FILE__, __LINE__))
