#pragma once

// Turns fuzzer input into datagrams: raw ones, and ones that open with a true QUDEX magic, version and topic
// so that the fuzzer spends its time behind these checks.

#include "fakeSockets.hpp"

#include <pktwire/detail/wire.hpp>

#include <cstdlib>
#include <memory_resource>

namespace pktwire::test {

class FuzzInput {
public:
    explicit FuzzInput(std::span<const std::uint8_t> bytes) : m_bytes{bytes} {}

    bool IsEmpty() const { return m_bytes.empty(); }
    std::uint8_t Byte() {
        if (m_bytes.empty()) return 0;
        const std::uint8_t byte = m_bytes.front();
        m_bytes = m_bytes.subspan(1);
        return byte;
    }
    std::uint16_t Word() { return static_cast<std::uint16_t>(Byte() << 8U | Byte()); }

    Bytes Datagram(std::uint32_t topic, std::size_t upper_size) {
        const std::uint8_t kind = Byte();
        const std::size_t size = kind == 0xFF ? wire::MAX_DATAGRAM : Byte() * (kind & 1U ? 1U : 9U);
        if ((kind & 2U) != 0) return Raw(size);
        wire::QudexHeader header;
        header.magic = wire::QUDEX_MAGIC;
        header.version = wire::QUDEX_VERSION;
        header.topic = topic;
        header.sample_id = (kind & 4U) != 0 ? Word() * 0x10001U : Byte();
        header.timestamp = time_point{std::chrono::nanoseconds{Byte()}};
        header.frame_number = Byte();
        header.num_frames = Byte();
        header.flags = kind >> 5U;
        header.place = (kind & 8U) != 0 ? Word() * 0x10001U : Word();
        const Bytes body = Raw(upper_size) + Raw(size);
        header.payload_size = static_cast<std::uint32_t>(body.size() + ((kind & 16U) != 0 ? Byte() : 0U));
        const auto* bytes = reinterpret_cast<const std::byte*>(&header);
        return Bytes(bytes, bytes + sizeof(header)) + body;
    }

private:
    Bytes Raw(std::size_t size) {
        Bytes bytes(size);
        for (std::size_t i = 0; i < std::min<std::size_t>(size, 64); ++i) bytes[i] = std::byte{Byte()};
        return bytes;
    }

    std::span<const std::uint8_t> m_bytes;
};

// Memory for a receiver, taken from the system once for all runs. Callers' buffers are not in it, so that the
// sanitizer sees every byte beyond them.
class ReceiverMemory {
public:
    std::pmr::memory_resource* Get() { return &m_resource; }

private:
    static std::span<std::byte> Arena() {
        static std::vector<std::byte> arena(std::size_t{6} << 20U);
        return arena;
    }
    std::pmr::monotonic_buffer_resource m_resource{Arena().data(), Arena().size()};
};

inline void Require(bool condition) {
    if (!condition) std::abort();
}

}  // namespace pktwire::test
