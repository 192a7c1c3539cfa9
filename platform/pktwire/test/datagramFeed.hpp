#pragma once

// Turns fuzzer input into datagrams: raw ones, and ones that open with a true QUDEX magic, version and topic
// so that the fuzzer spends its time behind these checks. What was fed is kept, to hold against it what comes
// out.

#include "fakeSockets.hpp"

#include <gsl/span>

#include <cstdlib>
#include <memory_resource>
#include <set>

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
        header.component_id = (kind & 4U) != 0 ? 0U : Byte() % 2U;
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

template <class Header>
Header HeaderAt(const Bytes& datagram, std::size_t offset) {
    Header header;
    std::memcpy(&header, datagram.data() + offset, sizeof(header));
    return header;
}

// Puts datagrams into a socket and remembers them. A receiver may deliver a body only if it was fed.
class Feed {
public:
    explicit Feed(FakeRxSocket& socket) : m_socket{socket} {}

    void Put(const Bytes& datagram) {
        m_socket.datagrams.push_back(datagram);
        m_fed.push_back(datagram);
    }
    // A true sample, with what the network does to one: packets lost, twice, late or damaged.
    void Put(const std::vector<Bytes>& sample, FuzzInput& input) {
        std::vector<Bytes> datagrams = sample;
        const std::uint8_t mishap = input.Byte();
        const std::size_t at = input.Byte() % datagrams.size();
        if (mishap % 5 == 1) datagrams.erase(datagrams.begin() + static_cast<std::ptrdiff_t>(at));
        if (mishap % 5 == 2) datagrams.push_back(datagrams[at]);
        if (mishap % 5 == 3) std::rotate(datagrams.begin(), datagrams.begin() + 1, datagrams.end());
        if (mishap % 5 == 4) {
            const std::size_t headers = std::min<std::size_t>(datagrams[at].size(), 64);
            datagrams[at][input.Byte() % headers] ^= std::byte{input.Byte()};
        }
        for (const Bytes& datagram : datagrams) Put(datagram);
    }

    // Whether the content is made up of bodies that were fed for frames `first` to `last` of this packet's
    // sample, each behind the one before. The bodies stand behind `head_size` bytes of a datagram and belong
    // where `place_of` finds them to do.
    template <class PlaceOf>
    bool Holds(gsl::span<const std::byte> content, const qudex::Packet& packet, unsigned first, unsigned last,
               std::size_t head_size, PlaceOf place_of) const {
        std::set<std::size_t> ends{0};
        for (unsigned frame = first; frame <= last; ++frame) {
            std::set<std::size_t> next;
            for (const Bytes& datagram : m_fed) {
                if (datagram.size() < head_size || !IsFrame(datagram, packet, frame)) continue;
                const std::size_t place = place_of(datagram);
                const std::size_t size = datagram.size() - head_size;
                if (ends.count(place) == 0 || size > content.size() - place) continue;
                const auto part = content.subspan(place, size);
                const auto body = datagram.begin() + static_cast<std::ptrdiff_t>(head_size);
                if (std::equal(part.begin(), part.end(), body)) next.insert(place + size);
            }
            ends = std::move(next);
        }
        return ends.count(content.size()) != 0;
    }

private:
    static bool IsFrame(const Bytes& datagram, const qudex::Packet& packet, unsigned frame) {
        const auto header = HeaderAt<wire::QudexHeader>(datagram, 0);
        return header.magic == wire::QUDEX_MAGIC && header.topic == packet.Topic() &&
               header.sample_id == packet.SampleId() && header.component_id == packet.ComponentId() &&
               header.num_frames == packet.NumFrames() && header.frame_number == frame &&
               header.payload_size == datagram.size() - sizeof(header);
    }

    FakeRxSocket& m_socket;
    std::vector<Bytes> m_fed;
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
