#pragma once

// Reads an LSPX sample packet by packet, in the order of its frames. Packets that come too early wait in the
// source's queue. One object for each lspx::Receiver, on its thread.

#include <pktwire/detail/lspxLayout.hpp>

#include <gsl/span>

namespace pktwire::lspx::detail {

class PacketReader {
public:
    using Pieces = gsl::span<const gsl::span<std::byte>>;
    // On success the slot is the caller's. Its body is in the pieces, or it was found and is still to go
    // there.
    struct Result {
        std::error_code error{};
        pktwire::detail::Slot* slot = nullptr;
        bool in_place = false;
    };

    PacketReader(pktwire::detail::PacketSource& source, const PartsLayout& layout) noexcept
        : m_source{source}, m_layout{layout} {}

    // Begins the next sample. One that was not read to its trailer is over.
    Result ReadLeader(Pieces pieces, std::chrono::nanoseconds timeout) noexcept;
    Result ReadPayload(Pieces pieces, std::chrono::nanoseconds timeout) noexcept;
    Result ReadTrailer(Pieces pieces, std::chrono::nanoseconds timeout) noexcept;

    // Gives up a sample that was not read to its trailer.
    void LeaveSample() noexcept;

private:
    // The next frame of the sample in work.
    Result ReadNextFrame(Pieces pieces, const pktwire::detail::Deadline& deadline) noexcept;
    // One packet from the socket: the next frame, or none if the packet was queued or dropped.
    Result ReadPacket(Pieces pieces, const pktwire::detail::Deadline& deadline) noexcept;
    // Takes away the packet that stands where the caller asked for one of another kind.
    Result Skip(const pktwire::detail::Deadline& deadline) noexcept;
    Result Deliver(const Result& found, Pieces pieces) noexcept;
    // A packet that comes between two samples and fits none ends the sample that it belongs to.
    Result RefuseSampleOf(pktwire::detail::Slot* slot, std::error_code error) noexcept;
    Result Drop(pktwire::detail::Slot* slot, std::error_code error) noexcept;
    Result GiveUp() noexcept;
    // The packets of the sample in work that still come are stale.
    void EndSample(bool delivered) noexcept;

    bool IsNextFrame(const pktwire::detail::Slot& slot) const noexcept;
    bool IsRefutedBySampleInWork(const pktwire::detail::Slot& slot) noexcept;
    // The next frame was taken, and these came before it.
    void NoteReordered(std::span<pktwire::detail::Slot* const> earlier) noexcept;
    // Packets of the sample in work that wait in the queue.
    std::size_t CountEarly() const noexcept;
    // The next frame, if it waits in the queue.
    pktwire::detail::Slot* TakeFromQueue() noexcept;

    pktwire::detail::PacketSource& m_source;
    const PartsLayout& m_layout;
    std::uint16_t m_num_frames = 0;  // of the sample in work, 0 for none
    std::uint32_t m_next_frame = 1;
    std::uint32_t m_id = 0;
    std::uint16_t m_component = 0;
    Cut m_cut{0, 0};  // as the leader tells it
    time_point m_latest{};
};

}  // namespace pktwire::lspx::detail
