#include <vosk/test/allocationCount.hpp>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t of_this_thread = 0;
std::atomic<std::size_t> of_all_threads{0};

void* Allocate(std::size_t size, std::size_t alignment) {
    ++of_this_thread;
    ++of_all_threads;
    const std::size_t rounded = (size + alignment - 1) / alignment * alignment;
    if (void* memory = std::aligned_alloc(alignment, rounded)) return memory;
    throw std::bad_alloc{};
}

}  // namespace

std::size_t vosk::test::AllocationsOfThisThread() noexcept {
    return of_this_thread;
}
std::size_t vosk::test::AllocationsOfAllThreads() noexcept {
    return of_all_threads;
}

// The other forms of new and delete call these. None inlined, or the compiler sees a free() of memory that
// did not come from malloc().
[[gnu::noinline]] void* operator new(std::size_t size) {
    return Allocate(size, alignof(std::max_align_t));
}
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment) {
    return Allocate(size, static_cast<std::size_t>(alignment));
}
// The library's own form would do, but the address sanitizer brings another one.
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
