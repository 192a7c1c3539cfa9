#pragma once

#include "fakeSockets.hpp"

#include <vosk/test/support.hpp>

namespace pktwire::test {

// A caller's buffer; the bytes around it must never change.
class GuardedBuffer {
public:
    explicit GuardedBuffer(std::size_t size) : m_memory(size + 2 * GUARD) {}
    ~GuardedBuffer() {
        for (std::size_t i = 0; i < GUARD; ++i) {
            EXPECT_EQ(m_memory[i], std::byte{});
            EXPECT_EQ(m_memory[m_memory.size() - 1 - i], std::byte{});
        }
    }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    gsl::span<std::byte> Get() {
        return gsl::span<std::byte>{m_memory}.subspan(GUARD, m_memory.size() - 2 * GUARD);
    }
    Bytes Content(std::size_t size) {
        return {Get().begin(), Get().begin() + static_cast<std::ptrdiff_t>(size)};
    }
    Bytes Content() { return Content(Get().size()); }

private:
    static constexpr std::size_t GUARD = 64;
    Bytes m_memory;
};

}  // namespace pktwire::test
