#pragma once

// A received QUDEX packet as callers see it. Its storage belongs to the receiver that it came from.

#include <pktwire/detail/wire.hpp>

#include <cstdint>
#include <memory>
#include <optional>

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
}  // namespace pktwire
