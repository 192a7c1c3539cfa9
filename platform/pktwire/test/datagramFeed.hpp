#pragma once

// Turns fuzzer input into datagrams: samples cut by a true sender, with their packets lost, repeated, out of
// order, damaged in their headers or of another size. The body is written last and follows from the headers,
// so that each byte of a sample that a receiver delivers is known.

#include "fakeSockets.hpp"

#include <gsl/span>

#include <array>
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

private:
    std::span<const std::uint8_t> m_bytes;
};

template <class Header>
Header HeaderAt(const Bytes& datagram, std::size_t offset) {
    Header header;
    std::memcpy(&header, datagram.data() + offset, sizeof(header));
    return header;
}

inline void Require(bool condition) {
    if (!condition) std::abort();
}

// Tells the content of a sample from that of others.
inline unsigned StartOf(std::uint32_t id, unsigned component, unsigned num_frames) {
    return id * 31 + component * 101 + num_frames * 11;
}

inline void RequireContent(gsl::span<const std::byte> found, const qudex::Packet& packet, std::size_t place) {
    const unsigned start = StartOf(packet.SampleId(), packet.ComponentId(), packet.NumFrames());
    const Bytes right = Counting(found.size(), start, place);
    Require(std::equal(right.begin(), right.end(), found.begin()));
}

// A sender's set-up for one sample. Both receivers are fuzzed with this topic.
inline qudex::Sender::Config FuzzedSender(FuzzInput& input, unsigned min_frames, unsigned max_frames) {
    qudex::Sender::Config config;
    config.topic = 7;
    config.component_id = input.Byte() % 2U;
    config.num_frames = static_cast<std::uint16_t>(input.Byte() % max_frames + min_frames);
    return config;
}

// Where the fields that place a packet end: component, ID, frame, frames, place, size, LSPX units and first.
constexpr std::array<std::size_t, 8> LOW_BYTES{7, 11, 21, 23, 31, 43, 59, 63};

// Puts the packets of a sample into the socket, each with a mishap or none. The bodies stand behind
// `head_size` bytes of a datagram and belong where `place_of` finds them to do.
template <class PlaceOf>
void Feed(FakeRxSocket& socket, const std::vector<Bytes>& sample, FuzzInput& input, std::size_t head_size,
          PlaceOf place_of) {
    const auto time = input.Byte();
    for (Bytes datagram : sample) {
        const std::uint8_t mishap = input.Byte();
        datagram[19] = std::byte{time};
        if (mishap % 8 == 1) continue;
        if (mishap % 8 == 4 || mishap % 8 == 5) {
            const std::size_t at = LOW_BYTES[input.Byte() % LOW_BYTES.size()];
            datagram[std::min(at, datagram.size() - 1)] = std::byte{input.Byte()};
        }
        if (mishap % 8 >= 6) datagram[input.Byte() % head_size] = std::byte{input.Byte()};
        if (mishap % 8 == 7) datagram.resize(mishap == 0xFF ? wire::MAX_DATAGRAM : input.Word() % 1500U);
        if (mishap % 16 == 15 && datagram.size() >= sizeof(wire::QudexHeader)) {
            const wire::Be32 size = static_cast<std::uint32_t>(datagram.size() - sizeof(wire::QudexHeader));
            std::memcpy(&datagram[offsetof(wire::QudexHeader, payload_size)], &size, sizeof(size));
        }
        if (datagram.size() > head_size) {
            const auto header = HeaderAt<wire::QudexHeader>(datagram, 0);
            const unsigned start = StartOf(header.sample_id, header.component_id, header.num_frames);
            const Bytes body = Counting(datagram.size() - head_size, start, place_of(datagram));
            std::copy(body.begin(), body.end(), datagram.begin() + static_cast<std::ptrdiff_t>(head_size));
        }
        socket.datagrams.push_back(datagram);
        if (mishap % 8 == 2) socket.datagrams.push_back(datagram);
        if (mishap % 8 == 3)
            std::swap(socket.datagrams.back(), socket.datagrams[input.Byte() % socket.datagrams.size()]);
    }
}

// Memory for a receiver, taken from the system once for all runs. Callers' buffers are not in it, so that the
// sanitizer sees every byte beyond them.
inline std::pmr::monotonic_buffer_resource ReceiverMemory() {
    static std::vector<std::byte> arena(std::size_t{6} << 20U);
    return std::pmr::monotonic_buffer_resource{arena.data(), arena.size()};
}

}  // namespace pktwire::test
