#pragma once

// A field that stands big-endian in a record and is read and written in host order, so that a record is
// read by its names and cannot be read wrongly. Any alignment; as large as T.

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace vosk::defs {

namespace detail {

template <std::size_t Size>
using UnsignedOfSize =
    std::conditional_t<Size == 1, std::uint8_t,
                       std::conditional_t<Size == 2, std::uint16_t,
                                          std::conditional_t<Size == 4, std::uint32_t, std::uint64_t>>>;

constexpr std::uint8_t SwapBytes(std::uint8_t value) noexcept {
    return value;
}
constexpr std::uint16_t SwapBytes(std::uint16_t value) noexcept {
    return __builtin_bswap16(value);
}
constexpr std::uint32_t SwapBytes(std::uint32_t value) noexcept {
    return __builtin_bswap32(value);
}
constexpr std::uint64_t SwapBytes(std::uint64_t value) noexcept {
    return __builtin_bswap64(value);
}

}  // namespace detail

template <class T>
class BigEndian {
    static_assert(std::is_arithmetic_v<T> && sizeof(T) <= 8);
    static_assert(std::endian::native == std::endian::little, "the wire forms assume a little-endian host");
    using Bits = detail::UnsignedOfSize<sizeof(T)>;
    using Bytes = std::array<std::byte, sizeof(T)>;

public:
    constexpr BigEndian() noexcept = default;
    constexpr BigEndian(T value) noexcept
        : m_bytes{std::bit_cast<Bytes>(detail::SwapBytes(std::bit_cast<Bits>(value)))} {}

    constexpr operator T() const noexcept {
        return std::bit_cast<T>(detail::SwapBytes(std::bit_cast<Bits>(m_bytes)));
    }

private:
    Bytes m_bytes{};
};

static_assert(sizeof(BigEndian<float>) == 4 && alignof(BigEndian<double>) == 1);
static_assert(std::is_trivially_copyable_v<BigEndian<float>>);

}  // namespace vosk::defs
