#include <pktwire/qudex.hpp>

#include <algorithm>
#include <utility>

namespace pktwire::detail {

using qudex::RxErrc;

BufferLayout::BufferLayout(std::uint16_t num_frames, std::pmr::memory_resource* memory)
    : m_expected_frames{num_frames}, m_expected(num_frames, memory), m_actual(num_frames, memory) {}

bool BufferLayout::SetBuffer(std::span<std::byte> buffer) noexcept {
    if (buffer.data() == m_buffer.data() && buffer.size() == m_buffer.size()) return false;
    const bool resized = buffer.size() != m_buffer.size();
    m_buffer = buffer;
    if (resized) ExpectEqualCut(m_expected_frames);
    return true;
}

std::span<std::byte> BufferLayout::ExpectedPlace(std::uint16_t frame) const noexcept {
    if (!m_as_expected || frame > m_expected_frames) return {};
    const Piece& piece = m_expected[frame - 1U];
    return m_buffer.subspan(piece.offset, piece.size);
}

std::error_code BufferLayout::Check(const Slot& slot) const noexcept {
    const wire::QudexHeader& header = slot.Header();
    if (header.num_frames > m_expected.size()) return RxErrc::frame_count;
    if (header.sample_size != 0 && header.sample_size != m_buffer.size()) return RxErrc::sample_size;
    const Piece piece{header.place, slot.body_size};
    if (!IsInBuffer(piece)) return RxErrc::sample_size;
    if (header.frame_number == 1 && piece.offset != 0) return RxErrc::frame_places;
    const bool is_last = header.frame_number == header.num_frames;
    if (is_last && piece.offset + piece.size != m_buffer.size()) return RxErrc::sample_size;
    return {};
}

void BufferLayout::Begin(const Slot& slot) noexcept {
    if (slot.packet.NumFrames() != m_expected_frames) ExpectEqualCut(slot.packet.NumFrames());
    m_as_expected = true;
}

std::error_code BufferLayout::Place(const Slot& slot, std::span<std::byte>& place) noexcept {
    const Piece piece{slot.Header().place, slot.body_size};
    if (!IsInBuffer(piece)) return RxErrc::sample_size;
    const std::size_t index = slot.packet.FrameNumber() - 1U;
    m_actual[index] = piece;
    m_as_expected = m_as_expected && piece == m_expected[index];
    place = m_buffer.subspan(piece.offset, piece.size);
    return {};
}

std::error_code BufferLayout::Finish() noexcept {
    const bool as_expected = std::exchange(m_as_expected, true);
    if (as_expected) return {};
    std::size_t end = 0;
    for (const Piece& piece : std::span{m_actual}.first(m_expected_frames)) {
        if (piece.offset != end) return RxErrc::frame_places;
        end += piece.size;
    }
    if (end != m_buffer.size()) return RxErrc::sample_size;
    m_expected.swap(m_actual);
    return {};
}

bool BufferLayout::IsInBuffer(const Piece& piece) const noexcept {
    return piece.offset <= m_buffer.size() && piece.size <= m_buffer.size() - piece.offset;
}

void BufferLayout::ExpectEqualCut(std::uint16_t frames) noexcept {
    m_expected_frames = frames;
    const std::size_t share = EqualShare(m_buffer.size(), frames);
    for (std::size_t i = 0; i < frames; ++i) {
        const std::size_t offset = std::min(i * share, m_buffer.size());
        m_expected[i] = {offset, std::min(share, m_buffer.size() - offset)};
    }
}

std::size_t EqualShare(std::size_t size, std::uint16_t frames) noexcept {
    return (size + frames - 1U) / frames;
}

}  // namespace pktwire::detail
