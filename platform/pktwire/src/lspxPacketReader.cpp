#include <pktwire/lspx.hpp>

#include <algorithm>
#include <cstring>
#include <utility>

namespace pktwire::lspx::detail {

using pktwire::detail::Deadline;
using pktwire::detail::Incoming;
using pktwire::detail::Slot;

namespace {

std::size_t SizeOf(PacketReader::Pieces pieces) noexcept {
    std::size_t size = 0;
    for (const auto& piece : pieces) size += piece.size();
    return size;
}

void Scatter(std::span<const std::byte> body, PacketReader::Pieces pieces) noexcept {
    for (const auto& piece : pieces) {
        const auto part = body.first(std::min(body.size(), piece.size()));
        if (!part.empty()) std::memcpy(piece.data(), part.data(), part.size());
        body = body.subspan(part.size());
    }
}

}  // namespace

PacketReader::Result PacketReader::ReadLeader(Pieces pieces, std::chrono::nanoseconds timeout) noexcept {
    const Deadline deadline{timeout};
    LeaveSample();
    m_source.DropStaleFromQueue();
    for (;;) {
        const Slot* next = m_source.NextInQueue();
        if (next != nullptr) {
            m_id = next->packet.SampleId();
            m_component = next->packet.ComponentId();
            m_num_frames = next->packet.NumFrames();
            m_latest = next->packet.Timestamp();
            m_next_frame = 1;
            Slot* leader = TakeFromQueue();
            if (leader != nullptr) return Deliver({{}, leader}, pieces);
            if (m_source.IsSampleInWorkHopeless(CountEarly())) return GiveUp();
            m_num_frames = 0;
        }
        const Result read = ReadPacket({}, deadline);
        if (read.error) return read;
    }
}

PacketReader::Result PacketReader::ReadPayload(Pieces pieces, std::chrono::nanoseconds timeout) noexcept {
    const Deadline deadline{timeout};
    // No payload comes before a leader, and none from the trailer on.
    if (m_num_frames == 0 || m_next_frame >= m_num_frames) return Skip(deadline);
    return Deliver(ReadNextFrame(pieces, deadline), pieces);
}

PacketReader::Result PacketReader::ReadTrailer(Pieces pieces, std::chrono::nanoseconds timeout) noexcept {
    const Deadline deadline{timeout};
    if (m_num_frames == 0 || m_next_frame != m_num_frames) return Skip(deadline);
    const Result trailer = Deliver(ReadNextFrame(pieces, deadline), pieces);
    if (trailer.slot != nullptr) {
        ++m_source.Counters().samples;
        EndSample(true);
    }
    return trailer;
}

void PacketReader::LeaveSample() noexcept {
    if (m_num_frames == 0) return;
    ++m_source.Counters().given_up;
    EndSample(false);
}

void PacketReader::EndSample(bool delivered) noexcept {
    m_source.SampleIsOver(m_id, m_latest, delivered);
    m_num_frames = 0;
}

PacketReader::Result PacketReader::ReadNextFrame(Pieces pieces, const Deadline& deadline) noexcept {
    for (;;) {
        Slot* queued = TakeFromQueue();
        if (queued != nullptr) return {{}, queued};
        if (m_source.IsSampleInWorkHopeless(CountEarly())) return GiveUp();
        const Result read = ReadPacket(pieces, deadline);
        if (read.error || read.slot != nullptr) return read;
    }
}

PacketReader::Result PacketReader::ReadPacket(Pieces pieces, const Deadline& deadline) noexcept {
    // One piece is what nearly every caller gives; into several the body is copied.
    const auto place = pieces.size() == 1 ? std::span<std::byte>{pieces[0].data(), pieces[0].size()}
                                          : std::span<std::byte>{};
    if (!m_source.Expect(place)) return {std::make_error_code(std::errc::no_buffer_space)};
    const std::error_code error = m_source.Read(deadline);
    if (error) return {error};
    Incoming& packet = m_source.Batch().front();
    Slot* slot = packet.slot;
    if (slot != nullptr) {
        const bool is_next = IsNextFrame(*slot);
        if (is_next) NoteReordered(m_source.Queue());
        if (is_next && slot->body_size <= packet.expected.size()) {
            return {{}, std::exchange(packet.slot, nullptr), true};
        }
        m_source.Lift({&packet, 1});
        packet.slot = nullptr;
        if (is_next) return {{}, slot};
        if (IsRefutedBySampleInWork(*slot)) {
            Drop(slot, {});
        } else if (const std::error_code misfit = m_layout.CheckSetup(*slot)) {
            const bool between_samples = m_num_frames == 0 && m_source.Queue().empty();
            if (between_samples && !m_source.IsStale(*slot)) return RefuseSampleOf(slot, misfit);
            m_source.DropMisfit(slot);
        } else if (m_source.Enqueue(slot)) {
            if (m_num_frames != 0 && slot->packet.SampleId() != m_id) ++m_source.Counters().ahead;
            return {};
        }
    }
    // A flood of packets that bring nothing must not hold the caller.
    if (deadline.Left().count() == 0) return {std::make_error_code(std::errc::timed_out)};
    return {};
}

PacketReader::Result PacketReader::Skip(const Deadline& deadline) noexcept {
    ++m_source.Counters().unexpected;
    if (m_num_frames != 0) {
        const Result skipped = ReadNextFrame({}, deadline);
        if (skipped.slot == nullptr) return skipped;
        if (m_next_frame++ == m_num_frames) LeaveSample();
        return Drop(skipped.slot, RxErrc::other_packet);
    }
    auto& queue = m_source.Queue();
    if (queue.empty()) {
        const Result read = ReadPacket({}, deadline);
        if (read.error) return read;
    }
    if (queue.empty()) return {RxErrc::other_packet};
    Slot* slot = queue.front();
    queue.erase(queue.begin());
    m_source.RecheckQueue();
    return Drop(slot, RxErrc::other_packet);
}

PacketReader::Result PacketReader::Deliver(const Result& found, Pieces pieces) noexcept {
    if (found.slot == nullptr) return found;
    ++m_next_frame;
    m_latest = std::max(m_latest, found.slot->packet.Timestamp());
    m_source.NoteProgress();
    std::error_code error = m_layout.CheckSetup(*found.slot);
    if (found.slot->packet.FrameNumber() == 1) m_cut = {m_num_frames, found.slot->Lspx().num_units};
    if (!error) error = m_layout.CheckUnits(*found.slot, m_cut);
    if (!error && !found.in_place && found.slot->body_size > SizeOf(pieces)) {
        error = std::make_error_code(std::errc::message_size);
    }
    if (error) {
        ++m_source.Counters().refused;
        EndSample(false);
        return Drop(found.slot, error);
    }
    if (found.in_place) return found;
    Scatter({found.slot->spill, found.slot->body_size}, pieces);
    // Where a leader's information goes is never known ahead of it.
    if (found.slot->body_size != 0 && found.slot->packet.FrameNumber() != 1) ++m_source.Counters().copied;
    return found;
}

PacketReader::Result PacketReader::RefuseSampleOf(Slot* slot, std::error_code error) noexcept {
    ++m_source.Counters().refused;
    m_source.SampleIsOver(slot->packet.SampleId(), slot->packet.Timestamp(), false);
    return Drop(slot, error);
}

PacketReader::Result PacketReader::Drop(Slot* slot, std::error_code error) noexcept {
    m_source.Release(slot);
    return {error};
}

PacketReader::Result PacketReader::GiveUp() noexcept {
    ++m_source.Counters().given_up;
    m_source.Counters().lost += m_num_frames - (m_next_frame - 1U) - CountEarly();
    EndSample(false);
    m_source.DropStaleFromQueue();
    return {qudex::RxErrc::sample_given_up};
}

bool PacketReader::IsNextFrame(const Slot& slot) const noexcept {
    return m_num_frames != 0 && slot.packet.SampleId() == m_id && slot.packet.ComponentId() == m_component &&
           slot.packet.NumFrames() == m_num_frames && slot.packet.FrameNumber() == m_next_frame;
}

bool PacketReader::IsRefutedBySampleInWork(const Slot& slot) noexcept {
    if (m_num_frames == 0 || slot.packet.SampleId() != m_id) return false;
    RxCounters& counters = m_source.Counters();
    if (slot.packet.ComponentId() != m_component) {
        ++counters.foreign;
    } else if (slot.packet.NumFrames() != m_num_frames) {
        ++counters.malformed;
    } else if (slot.packet.FrameNumber() < m_next_frame) {
        ++counters.duplicate;
    } else {
        return false;
    }
    return true;
}

void PacketReader::NoteReordered(std::span<Slot* const> earlier) noexcept {
    const bool behind_a_later_one = std::any_of(
        earlier.begin(), earlier.end(), [this](const Slot* slot) { return slot->packet.SampleId() == m_id; });
    if (behind_a_later_one) ++m_source.Counters().reordered;
}

std::size_t PacketReader::CountEarly() const noexcept {
    const auto& queue = m_source.Queue();
    return static_cast<std::size_t>(std::count_if(
        queue.begin(), queue.end(), [this](const Slot* slot) { return slot->packet.SampleId() == m_id; }));
}

Slot* PacketReader::TakeFromQueue() noexcept {
    auto& queue = m_source.Queue();
    const auto found =
        std::find_if(queue.begin(), queue.end(), [this](const Slot* slot) { return IsNextFrame(*slot); });
    if (found == queue.end()) return nullptr;
    NoteReordered({queue.data(), static_cast<std::size_t>(found - queue.begin())});
    Slot* slot = *found;
    queue.erase(found);
    m_source.RecheckQueue();
    return slot;
}

}  // namespace pktwire::lspx::detail
