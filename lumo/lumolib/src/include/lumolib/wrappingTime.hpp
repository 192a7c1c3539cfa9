#pragma once

// Arithmetic on nanosecond counts that wraps instead of overflowing: times can come from a peer's packet, and
// a wild one must cost no more than a wild figure.

#include <atomclk/atomClk.hpp>

#include <chrono>
#include <cstdint>

namespace vosk::lumo {

constexpr std::uint64_t Bits(std::int64_t count) noexcept {
    return static_cast<std::uint64_t>(count);
}

constexpr std::uint64_t Bits(atomclk::AtomClk::time_point time) noexcept {
    return Bits(time.time_since_epoch().count());
}

constexpr std::chrono::nanoseconds WrappingDifference(atomclk::AtomClk::time_point later,
                                                      atomclk::AtomClk::time_point earlier) noexcept {
    return std::chrono::nanoseconds{static_cast<std::int64_t>(Bits(later) - Bits(earlier))};
}

constexpr std::uint64_t Magnitude(std::int64_t value) noexcept {
    return value < 0 ? 0 - Bits(value) : Bits(value);
}

}  // namespace vosk::lumo
