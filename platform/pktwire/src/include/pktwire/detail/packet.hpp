#pragma once

// A received packet as callers see it, and the pool that it comes from and goes back to. The pool is filled
// at construction; taking and giving back cost a vector's push and pop. One thread.

#include <pktwire/detail/wire.hpp>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <memory_resource>
#include <optional>
#include <vector>

namespace pktwire {

namespace detail {
class PacketPool;
struct Slot;
}  // namespace detail

namespace qudex {

class Packet {
public:
    std::uint32_t SampleId() const noexcept { return m_header.sample_id; }
    // A count of 0 means that the sender gave no time.
    time_point Timestamp() const noexcept { return m_header.timestamp; }
    std::uint16_t FrameNumber() const noexcept { return m_header.frame_number; }
    // Of the whole sample; with LSPX leader and trailer are counted.
    std::uint16_t NumFrames() const noexcept { return m_header.num_frames; }
    std::uint32_t Topic() const noexcept { return m_header.topic; }
    std::uint16_t ComponentId() const noexcept { return m_header.component_id; }
    std::optional<std::uint16_t> Extra() const noexcept {
        if ((m_header.flags & wire::QUDEX_HAS_EXTRA) == 0) return std::nullopt;
        return m_header.extra;
    }

private:
    friend struct detail::Slot;
    friend class detail::PacketPool;
    friend struct PacketDeleter;
    struct Layout;  // pins where the header's fields stand in the object

    detail::PacketPool* m_pool = nullptr;
    wire::QudexHeader m_header;
};

// Gives a packet back to the receiver that it came from, which must still live.
struct PacketDeleter {
    void operator()(const Packet* packet) const noexcept;
};

using PacketPtr = std::unique_ptr<const Packet, PacketDeleter>;

}  // namespace qudex

namespace detail {

// One packet's storage. The kernel writes the QUDEX header into the packet, what a layer above puts ahead of
// its body into `prefix`, right behind, and into `spill` the part of the body that was not expected
// elsewhere.
struct Slot {
    qudex::Packet packet;
    std::array<std::byte, sizeof(wire::LspxHeader) + wire::MAX_PADDING + 1> prefix{};
    alignas(8) std::array<std::byte, 24> upper{};  // an LSPX packet object lives here while it is handed out
    std::byte* spill = nullptr;
    std::size_t body_size = 0;

    static constexpr std::size_t SPILL_SIZE = 65536;

    const wire::QudexHeader& Header() const noexcept { return packet.m_header; }
    // Where a datagram's first byte goes; the prefix follows the header without a gap.
    std::byte* Wire() noexcept { return reinterpret_cast<std::byte*>(&packet.m_header); }
    const wire::LspxHeader& Lspx() const noexcept {
        return *reinterpret_cast<const wire::LspxHeader*>(prefix.data());
    }
};

class PacketPool {
public:
    PacketPool(std::size_t count, std::pmr::memory_resource* memory);
    PacketPool(const PacketPool&) = delete;
    PacketPool& operator=(const PacketPool&) = delete;
    ~PacketPool() = default;

    // Adds packets; for set-up only.
    void Grow(std::size_t count);

    std::size_t Available() const noexcept { return m_free.size(); }
    // The caller has seen that one is available.
    Slot* Take() noexcept;
    void Give(Slot* slot) noexcept;

private:
    struct Block {
        Block(std::size_t count, std::pmr::memory_resource* resource);
        ~Block();
        Block(const Block&) = delete;
        Block& operator=(const Block&) = delete;

        std::pmr::memory_resource* memory;
        std::pmr::vector<Slot> slots;
        std::byte* spills;  // of all slots; cleared, so that no page of it faults later
    };

    std::pmr::memory_resource* m_memory;
    std::pmr::list<Block> m_blocks;
    std::pmr::vector<Slot*> m_free;
};

}  // namespace detail
}  // namespace pktwire
