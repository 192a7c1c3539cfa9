#pragma once

// Whole vectors between wire and host order, as fast as the machine swaps them. Any thread.

#include <vosk/defs/bigEndian.hpp>
#include <vosk/defs/sizes.hpp>

#include <span>

namespace vosk::defs {

void ToHostOrder(std::span<const BigEndian<float>, M4_CMD_SIZE> from,
                 std::span<float, M4_CMD_SIZE> to) noexcept;
void ToWireOrder(std::span<const float, M4_CMD_SIZE> from,
                 std::span<BigEndian<float>, M4_CMD_SIZE> to) noexcept;

}  // namespace vosk::defs
