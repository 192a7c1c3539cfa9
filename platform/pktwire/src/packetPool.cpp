#include <pktwire/detail/packetPool.hpp>

#include <cstring>

namespace pktwire {

// Callers of other layers read these fields; the object starts with them and nothing may move.
struct qudex::Packet::Layout {
    template <std::size_t FieldInHeader>
    static constexpr std::size_t AT = offsetof(Packet, m_header) + FieldInHeader;
    static_assert(AT<offsetof(wire::QudexHeader, sample_id)> == 16);
    static_assert(AT<offsetof(wire::QudexHeader, timestamp)> == 20);
    static_assert(AT<offsetof(wire::QudexHeader, num_frames)> == 30);
    // The kernel writes headers across the two.
    static_assert(offsetof(detail::Slot, prefix) == AT<sizeof(wire::QudexHeader)>);
    static_assert(offsetof(detail::Slot, packet) == 0);
};

namespace detail {

PacketPool::Block::Block(std::size_t count, std::pmr::memory_resource* resource)
    : memory{resource},
      slots(count, resource),
      spills{static_cast<std::byte*>(resource->allocate(count * Slot::SPILL_SIZE))} {
    std::memset(spills, 0, count * Slot::SPILL_SIZE);
    for (std::size_t i = 0; i < count; ++i) slots[i].spill = spills + i * Slot::SPILL_SIZE;
}

PacketPool::Block::~Block() {
    memory->deallocate(spills, slots.size() * Slot::SPILL_SIZE);
}

PacketPool::PacketPool(std::size_t count, std::pmr::memory_resource* memory)
    : m_memory{memory}, m_blocks(memory), m_free(memory) {
    Grow(count);
}

void PacketPool::Grow(std::size_t count) {
    Block& block = m_blocks.emplace_back(count, m_memory);
    m_free.reserve(m_free.size() + count);
    for (std::size_t i = 0; i < count; ++i) {
        block.slots[i].packet.m_pool = this;
        m_free.push_back(&block.slots[i]);
    }
}

Slot* PacketPool::Take() noexcept {
    Slot* slot = m_free.back();
    m_free.pop_back();
    return slot;
}

void PacketPool::Give(Slot* slot) noexcept {
    m_free.push_back(slot);
}

}  // namespace detail

void qudex::PacketDeleter::operator()(const Packet* packet) const noexcept {
    // A packet is the first member of its slot, and no slot is const.
    auto* slot = reinterpret_cast<detail::Slot*>(const_cast<Packet*>(packet));
    packet->m_pool->Give(slot);
}

}  // namespace pktwire
