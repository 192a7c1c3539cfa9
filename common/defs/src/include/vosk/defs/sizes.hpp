#pragma once

// Extents of the vectors that the whole system shares, in elements.

#include <cstddef>
#include <cstdint>

namespace vosk::defs {

inline constexpr std::size_t M4_CMD_SIZE = 5352;         // an M4 command, and M4's feedback vectors
inline constexpr std::size_t GPAO_CMD_SIZE = 52;         // a GPAO command in GPAO modal space
inline constexpr std::size_t WAVEFRONT_CMD_SIZE = 4868;  // two tip/tilt pairs and the high-order part
inline constexpr std::size_t INS_CMD_SIZE = 4866;        // a command in INS modal space
inline constexpr std::size_t HIGH_ORDER_SIZE = 4864;     // the high-order part of a wavefront command
inline constexpr std::size_t TIP_TILT_SIZE = 2;
inline constexpr std::size_t MAX_SLOPES = 1089;  // slopes of one wavefront-sensor frame

static_assert(TIP_TILT_SIZE + HIGH_ORDER_SIZE == INS_CMD_SIZE);
static_assert(TIP_TILT_SIZE + INS_CMD_SIZE == WAVEFRONT_CMD_SIZE);

// Sample IDs count up by one a sample and wrap.
using sample_id_t = unsigned int;

}  // namespace vosk::defs
