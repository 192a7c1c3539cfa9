#pragma once

// The storage of received packets, and the pool that it comes from and goes back to. The pool is filled at
// construction; taking and giving back cost a vector's push and pop. One thread.

#include <pktwire/packet.hpp>

#include <array>
#include <cstddef>
#include <list>
#include <memory_resource>
#include <vector>

namespace pktwire::detail {

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

}  // namespace pktwire::detail
