#pragma once

// CRC-32C (Castagnoli, reflected 0x82F63B78, start and final inversion), by the processor's instruction where
// it has one.

#include <cstddef>
#include <cstdint>
#include <span>

namespace pktwire::detail {

class Crc32c {
public:
    void Add(std::span<const std::byte> bytes) noexcept;
    std::uint32_t Value() const noexcept { return ~m_state; }

private:
    std::uint32_t m_state = ~std::uint32_t{0};
};

// The form without the instruction, which Add also uses on processors that lack it.
std::uint32_t Crc32cByTable(std::uint32_t state, std::span<const std::byte> bytes) noexcept;

}  // namespace pktwire::detail
