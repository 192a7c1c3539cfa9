#pragma once

// The headers as they stand on the wire; docs/wire-format.md tells their meaning. All multi-byte fields are
// big-endian, and no field needs alignment. The headers' fields are unsigned numbers, and platform includes
// nothing of common: that is why vosk::defs::BigEndian, which records use for signed numbers and floats too,
// is another type.

#include <atomclk/atomClk.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace pktwire {

using time_point = atomclk::AtomClk::time_point;

namespace wire {

template <class T>
class BigEndian {
    static_assert(std::is_unsigned_v<T>);

public:
    constexpr BigEndian() noexcept = default;
    constexpr BigEndian(T value) noexcept {
        for (std::size_t i = sizeof(T); i-- > 0; value = static_cast<T>(value >> 8U)) {
            m_bytes[i] = static_cast<std::uint8_t>(value);
        }
    }
    constexpr operator T() const noexcept {
        T value = 0;
        for (std::uint8_t byte : m_bytes) value = static_cast<T>((value << 8U) | byte);
        return value;
    }

private:
    std::array<std::uint8_t, sizeof(T)> m_bytes{};
};

using Be16 = BigEndian<std::uint16_t>;
using Be32 = BigEndian<std::uint32_t>;

inline constexpr std::uint32_t QUDEX_MAGIC = 0x51554458;  // "QUDX"
inline constexpr std::uint8_t QUDEX_VERSION = 1;
inline constexpr std::uint8_t QUDEX_HAS_CHECKSUM = 1;  // flags
inline constexpr std::uint8_t QUDEX_HAS_EXTRA = 2;

struct QudexHeader {
    Be32 magic;
    std::uint8_t version = 0;
    std::uint8_t flags = 0;
    Be16 component_id;
    Be32 sample_id;
    atomclk::detail::TransportTimepoint<0> timestamp;
    Be16 frame_number;  // from 1
    Be16 num_frames;
    Be32 topic;
    Be32 place;         // of the payload's first byte in the sample
    Be32 payload_size;  // bytes behind this header
    Be16 extra;
    Be16 reserved;
    Be32 sample_size;  // bytes of the whole sample, 0 for not told
    Be32 checksum;     // CRC-32C of the datagram with this field as 0
};
static_assert(sizeof(QudexHeader) == 48 && alignof(QudexHeader) == 1);

inline constexpr std::uint8_t LSPX_VERSION = 1;

enum class LspxKind : std::uint8_t { leader = 1, payload = 2, trailer = 3 };

struct LspxHeader {
    std::uint8_t version = 0;
    std::uint8_t kind = 0;
    std::uint8_t flags = 0;  // endianness | source
    std::uint8_t unit_size = 0;
    std::uint8_t padding_size = 0;  // bytes between this header and the body
    std::uint8_t status = 0;
    std::uint8_t info_size = 0;  // bytes of extended information: the body of a leader or trailer
    std::uint8_t reserved = 0;
    Be32 num_units;   // of the sample
    Be32 first_unit;  // of this packet, from 1; 0 in leader and trailer
};
static_assert(sizeof(LspxHeader) == 16 && alignof(LspxHeader) == 1);

inline constexpr std::size_t MAX_PADDING = 255;
// The largest body of a UDP datagram over IPv4.
inline constexpr std::size_t MAX_DATAGRAM = 65507;

}  // namespace wire
}  // namespace pktwire
