#include <vosk/common/assert.hpp>

#include <cstdio>
#include <cstdlib>

namespace vosk::common {

void AssertionFailed(const char* condition, const char* file, int line) noexcept {
    std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, condition);
    std::abort();
}

}  // namespace vosk::common
