#pragma once

#include <cstddef>

namespace pktwire::test {

// Calls of operator new on this thread.
std::size_t AllocationCount() noexcept;

}  // namespace pktwire::test
