#pragma once

// Where the frames of a QUDEX sample belong in the caller's buffer. One object for each qudex::Receiver, on
// its thread.

#include <pktwire/detail/sampleCollector.hpp>

namespace pktwire::detail {

// The size of a frame when a sample is cut into equal ones; the last ones are smaller.
std::size_t EqualShare(std::size_t size, std::uint16_t frames) noexcept;

// The next sample's frames are expected where those of the last whole sample lay, until one lies elsewhere.
class BufferLayout final : public SampleLayout {
public:
    BufferLayout(std::uint16_t num_frames, std::pmr::memory_resource* memory);

    // True if this is not the buffer of the last call.
    bool SetBuffer(std::span<std::byte> buffer) noexcept;

    std::uint16_t ExpectedFrames() const noexcept override { return m_expected_frames; }
    std::span<std::byte> ExpectedPlace(std::uint16_t frame) const noexcept override;
    std::error_code Check(const Slot& slot) const noexcept override;
    void Begin(const Slot& slot) noexcept override;
    std::error_code Place(const Slot& slot, std::span<std::byte>& place) noexcept override;
    std::error_code Finish() noexcept override;

private:
    struct Piece {
        std::size_t offset = 0;
        std::size_t size = 0;
        friend bool operator==(const Piece&, const Piece&) = default;
    };
    void ExpectEqualCut(std::uint16_t frames) noexcept;
    bool IsInBuffer(const Piece& piece) const noexcept;

    std::uint16_t m_expected_frames;
    bool m_as_expected = true;  // all frames of the sample in work so far
    std::span<std::byte> m_buffer;
    std::pmr::vector<Piece> m_expected;  // by frame number - 1
    std::pmr::vector<Piece> m_actual;
};

}  // namespace pktwire::detail
