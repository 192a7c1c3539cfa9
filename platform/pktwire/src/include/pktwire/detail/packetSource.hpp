#pragma once

// What stands between the socket and the assembly of samples: batched reading into the places where packets
// are expected, the checks of a packet by itself, the queue of packets that came before their turn, and the
// memory of samples that are over. Made by a qudex::Receiver, used on its thread.

#include <pktwire/detail/packetPool.hpp>
#include <pktwire/rxCounters.hpp>
#include <pktwire/udpSocket.hpp>

#include <array>
#include <chrono>
#include <span>
#include <system_error>

namespace pktwire::detail {

// A point on the steady clock; with a timeout of 0 the clock is never read.
class Deadline {
public:
    explicit Deadline(std::chrono::nanoseconds timeout) noexcept;
    std::chrono::nanoseconds Left() const noexcept;  // 0 when it has passed

private:
    std::optional<std::chrono::steady_clock::time_point> m_end;
};

// One packet as it was read: its body lies in `expected` as far as that reaches, the rest in the slot's
// spill; once it is lifted, all of it lies at the spill's start.
struct Incoming {
    Slot* slot = nullptr;  // null: dropped or taken
    std::span<std::byte> expected;
    bool lifted = false;
};

class PacketSource {
public:
    struct Config {
        std::uint32_t topic;
        bool ignore_checksum;
        std::size_t batch;  // packets read at a time
        std::size_t queue;  // packets kept for later samples
    };

    PacketSource(const Config& config, RxSocket& socket, std::pmr::memory_resource* memory);

    // How many bytes of a packet stand ahead of its body, the QUDEX header included. For set-up only.
    void SetPrefix(std::size_t size) noexcept { m_prefix = size; }
    // Packets that the caller may hold besides those that the source needs itself. For set-up only.
    void AllowHeld(std::size_t count);
    // Packets of the sample in work that may wait in the queue besides those of other samples. For set-up
    // only.
    void AllowEarly(std::size_t count);

    // Begins as if just made, with zero counters: what waits in the queue and in the socket is dropped.
    void Restart() noexcept;

    std::size_t BatchSize() const noexcept { return m_batch.size(); }

    // Opens a batch for the next Read: one more packet, its body expected at this place (which may be empty).
    // False if no packet is free.
    bool Expect(std::span<std::byte> place) noexcept;
    // Reads into the places expected, waiting until the deadline for the first datagram. The batch then holds
    // those that are valid by themselves; all others are counted.
    std::error_code Read(const Deadline& deadline) noexcept;

    std::span<Incoming> Batch() noexcept { return std::span{m_batch}.first(m_read); }
    // Takes the bodies of these packets out of the places where they were expected.
    void Lift(std::span<Incoming> packets) noexcept;

    // Packets whose turn is yet to come, lifted, in order of arrival.
    std::pmr::vector<Slot*>& Queue() noexcept { return m_queue; }
    // Queues a lifted packet that the caller's layout could take; one that is over, there already or at odds
    // with the packets of its sample is dropped and gives false.
    bool Enqueue(Slot* slot) noexcept;
    // Drops a packet that no layout could take, so that it can't crowd out a sample.
    void DropMisfit(Slot* slot) noexcept;
    // Drops a stale packet. It may be the first of a restarted stream, but only without a misfit.
    void DropStale(Slot* slot, const std::error_code& misfit = {}) noexcept;
    void DropStaleFromQueue() noexcept;
    // A packet of the sample that is next: the first that came, or one of a sample shortly before.
    const Slot* NextInQueue() const noexcept;
    // The missing packets of the sample in work are lost: another sample is whole, the queue is full, or only
    // misfits come, as the sender was set up again. `early` packets of the sample in work wait in the queue.
    bool IsSampleInWorkHopeless(std::size_t early = 0) const noexcept {
        return m_whole_in_queue || m_queue.size() - early >= m_queue_limit || early > m_early_limit ||
               m_misfits >= MAX_MISFITS;
    }
    // A packet of the sample in work was taken.
    void NoteProgress() noexcept { m_misfits = 0; }
    // Call after taking packets out of the queue.
    void RecheckQueue() noexcept;

    // The sample is over: further packets of it are stale. A delivered one makes those behind it stale as
    // well, so that samples are delivered in order.
    void SampleIsOver(std::uint32_t id, time_point latest, bool delivered) noexcept;
    bool IsStale(const Slot& slot) const noexcept;

    void Release(Slot* slot) noexcept { m_pool.Give(slot); }

    RxCounters& Counters() noexcept { return m_counters; }
    RxCounters ReadCounters() const noexcept;

private:
    struct PastSample {
        std::uint32_t id = 0;
        time_point latest{};
    };
    // Consecutive samples that were dropped as late, for no other reason.
    struct LateRun {
        std::uint32_t id = 0;          // of the latest
        std::uint16_t component = 0;   // of all
        std::uint16_t num_frames = 0;  // of each, 0 for no run
        std::uint16_t frames = 0;      // of the latest so far, in the order of their numbers
        unsigned whole = 0;            // samples, in ascending order
    };
    static constexpr std::size_t IOVS = 3;  // headers, expected place, spill
    static constexpr std::size_t MAX_MISFITS = 64;

    void DrainSocket() noexcept;
    void CountMissed(std::uint32_t id) noexcept;
    bool IsValid(const Incoming& packet, const mmsghdr& message) noexcept;
    bool ChecksumFits(const Incoming& packet) const noexcept;
    bool IsWholeInQueue(const Slot& slot) const noexcept;
    // The counter to raise if the second packet keeps the first one out of its sample, else null.
    std::uint64_t* Conflict(const Slot& slot, const Slot& other) noexcept;
    std::span<const PastSample> PastSamples() const noexcept;
    bool IsOver(const Slot& slot) const noexcept;
    bool IsLate(const Slot& slot) const noexcept;
    void NoteLate(const Slot& slot) noexcept;
    void FollowLate() noexcept;
    void ForgetLate() noexcept;

    const std::uint32_t m_topic;
    const bool m_ignore_checksum;
    const std::size_t m_queue_limit;
    std::size_t m_early_limit = 0;
    RxSocket& m_socket;
    std::size_t m_prefix = sizeof(wire::QudexHeader);
    PacketPool m_pool;
    std::pmr::vector<Incoming> m_batch;
    std::pmr::vector<iovec> m_iovs;
    std::pmr::vector<mmsghdr> m_messages;
    std::size_t m_expected = 0;
    std::size_t m_read = 0;
    std::pmr::vector<Slot*> m_queue;
    bool m_whole_in_queue = false;
    std::uint32_t m_given_up = 0;  // samples since the one delivered last
    unsigned m_late_samples = 0;   // begun, likewise
    std::array<PastSample, 16> m_past{};
    std::size_t m_past_count = 0;
    std::optional<PastSample> m_delivered;
    LateRun m_late;
    std::size_t m_misfits = 0;  // in a row
    RxCounters m_counters;
    std::uint32_t m_dropped_before = 0;  // by the kernel, until the restart
};

}  // namespace pktwire::detail
