#include <pktwire/detail/crc32c.hpp>

#include <array>
#include <cstring>

#if defined(__x86_64__)
#include <nmmintrin.h>
#endif

namespace pktwire::detail {

namespace {

constexpr std::array<std::uint32_t, 256> MakeTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
        std::uint32_t state = byte;
        for (int bit = 0; bit < 8; ++bit) state = (state >> 1U) ^ ((state & 1U) != 0 ? 0x82F63B78U : 0U);
        table[byte] = state;
    }
    return table;
}

constexpr auto TABLE = MakeTable();

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) std::uint32_t ByInstruction(std::uint32_t state,
                                                              std::span<const std::byte> bytes) noexcept {
    std::uint64_t wide = state;
    while (bytes.size() >= sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes.data(), sizeof(word));
        wide = _mm_crc32_u64(wide, word);
        bytes = bytes.subspan(sizeof(word));
    }
    state = static_cast<std::uint32_t>(wide);
    for (std::byte byte : bytes) state = _mm_crc32_u8(state, static_cast<std::uint8_t>(byte));
    return state;
}

bool HasInstruction() noexcept {
    return __builtin_cpu_supports("sse4.2") != 0;
}
#else
std::uint32_t ByInstruction(std::uint32_t state, std::span<const std::byte> bytes) noexcept {
    return Crc32cByTable(state, bytes);
}

bool HasInstruction() noexcept {
    return false;
}
#endif

}  // namespace

std::uint32_t Crc32cByTable(std::uint32_t state, std::span<const std::byte> bytes) noexcept {
    for (std::byte byte : bytes)
        state = (state >> 8U) ^ TABLE[(state ^ std::to_integer<std::uint32_t>(byte)) & 0xFFU];
    return state;
}

void Crc32c::Add(std::span<const std::byte> bytes) noexcept {
    static const bool has_instruction = HasInstruction();
    m_state = has_instruction ? ByInstruction(m_state, bytes) : Crc32cByTable(m_state, bytes);
}

}  // namespace pktwire::detail
