#pragma once

// The pixel container: raw frames, cleaned frames, calibration data and index tables. Its storage starts on a
// 32-byte boundary, like every frame buffer of the system.

#include <boost/align/aligned_allocator.hpp>

#include <cstddef>
#include <vector>

namespace vosk::defs {

inline constexpr std::size_t FRAME_ALIGNMENT = 32;  // bytes

template <class T>
using AlignedFrame = std::vector<T, boost::alignment::aligned_allocator<T, FRAME_ALIGNMENT>>;

}  // namespace vosk::defs
