#include <vosk/common/math/finite.hpp>

#include <bit>
#include <cstdint>

namespace vosk::common::math {

// Without an early end, so that the loop becomes vector code.
bool AllFinite(std::span<const float> values) noexcept {
    constexpr std::uint32_t EXPONENT = 0x7f800000;
    std::uint32_t found = 0;
    for (const float value : values) {
        const bool is_special = (std::bit_cast<std::uint32_t>(value) & EXPONENT) == EXPONENT;
        found |= static_cast<std::uint32_t>(is_special);
    }
    return found == 0;
}

}  // namespace vosk::common::math
