#pragma once

// Assembles samples out of frames: which sample is in work, which of its frames are in, when it is whole and
// when it is given up. Where a frame belongs is the business of a SampleLayout, one for QUDEX, one for LSPX.
// Used by one receiver, on its thread.

#include <pktwire/detail/packetSource.hpp>

#include <span>
#include <system_error>

namespace pktwire::detail {

// How a sample lies in the caller's memory. Frames count from 1.
class SampleLayout {
public:
    virtual ~SampleLayout() = default;

    // Frames of the next sample, as far as can be guessed.
    virtual std::uint16_t ExpectedFrames() const noexcept = 0;
    // Where the body of this frame will most likely belong; empty if nobody knows. The places of frames that
    // are not in yet never overlap those of frames that are.
    virtual std::span<std::byte> ExpectedPlace(std::uint16_t frame) const noexcept = 0;
    // Whether this packet could be part of a sample that can be received here.
    virtual std::error_code Check(const Slot& slot) const noexcept = 0;
    // The first packet of a new sample is here, any of its frames, and passed the check. From now on this is
    // the sample's cut.
    virtual void Begin(const Slot& slot) noexcept = 0;
    // Where the body of this packet belongs, as large as the body. An error refuses the sample.
    virtual std::error_code Place(const Slot& slot, std::span<std::byte>& place) noexcept = 0;
    // All frames are in. An error refuses the sample.
    virtual std::error_code Finish() noexcept = 0;
};

// Packets that a whole sample leaves with the caller: its first frame and, if it has more than one, its last.
struct EndPackets {
    qudex::PacketPtr first;
    qudex::PacketPtr last;
};

class SampleCollector {
public:
    SampleCollector(PacketSource& source, std::uint16_t max_frames, std::pmr::memory_resource* memory);

    // Waits for the sample to be whole. After a time-out the sample in work stays so, and the next call goes
    // on with it: its layout must point to the same memory, or AbandonSample() comes first.
    std::error_code Collect(SampleLayout& layout, std::chrono::nanoseconds timeout,
                            EndPackets& ends) noexcept;

    bool IsSampleInWork() const noexcept { return m_num_frames != 0; }
    // Gives up the sample in work.
    std::error_code AbandonSample() noexcept;

private:
    // What one packet did to the sample in work.
    enum class Step { going_on, whole, refused };

    Step TakeFromQueue(SampleLayout& layout, std::error_code& error) noexcept;
    Step TakeFromBatch(SampleLayout& layout, std::error_code& error) noexcept;
    Step Accept(SampleLayout& layout, std::span<Incoming> packets, std::error_code& error) noexcept;
    Step RefuseSample(Slot* slot) noexcept;
    void Drop(Incoming& packet, std::uint64_t& counter) noexcept;
    std::error_code Begin(SampleLayout& layout, const Slot& slot) noexcept;
    // False if no packet is free.
    bool ExpectMissingFrames(const SampleLayout& layout) noexcept;
    void Keep(Slot* slot) noexcept;
    void EndSample(bool delivered) noexcept;

    bool IsOfSampleInWork(const Slot& slot) const noexcept {
        return m_num_frames != 0 && slot.packet.SampleId() == m_id;
    }
    bool IsIn(std::uint16_t frame) const noexcept { return ((m_in[frame / 64U] >> (frame % 64U)) & 1U) != 0; }

    PacketSource& m_source;
    const std::uint16_t m_max_frames;
    std::pmr::vector<std::uint64_t> m_in;  // one bit a frame
    std::uint16_t m_num_frames = 0;        // of the sample in work, 0 for none
    std::uint16_t m_missing = 0;
    std::uint16_t m_highest = 0;  // frame number
    std::uint32_t m_id = 0;
    std::uint16_t m_component = 0;
    time_point m_latest{};  // time stamp
    bool m_progress = false;
    EndPackets m_ends;
};

}  // namespace pktwire::detail
