#include <pktwire/detail/crc32c.hpp>
#include <pktwire/detail/packetSource.hpp>

#include <algorithm>
#include <cstring>
#include <utility>

namespace pktwire::detail {

namespace {

// Sample IDs run forward and wrap; two of one stream that lie this close are taken to be in order, whatever
// their times.
constexpr std::uint32_t ORDER_WINDOW = 16;
// Samples that may be missed in a row; a longer gap is the new start of a sender.
constexpr std::uint32_t MAX_GAP = 1U << 20U;
// Packets dropped from a socket at a restart: more than any buffer holds. A flood must not hold the caller.
constexpr std::size_t MAX_DRAINED = 1U << 17U;
// So many whole samples in a row can't all be late: the one that made them so was none of the stream.
constexpr unsigned MAX_LATE_SAMPLES = 3;
constexpr unsigned MAX_LATE_ALONE = 16;  // samples with none delivered in between

bool IsShortlyBefore(std::uint32_t id, std::uint32_t other) noexcept {
    const std::uint32_t distance = other - id;
    return distance != 0 && distance < ORDER_WINDOW;
}

// A sender that was restarted may use IDs of the recent past, but its times go on.
bool IsNewer(const Slot& slot, time_point latest) noexcept {
    return latest != time_point{} && slot.packet.Timestamp() > latest;
}

bool IsOlder(const Slot& slot, time_point latest) noexcept {
    const time_point time = slot.packet.Timestamp();
    return time != time_point{} && latest != time_point{} && time < latest;
}

}  // namespace

Deadline::Deadline(std::chrono::nanoseconds timeout) noexcept {
    if (timeout <= std::chrono::nanoseconds::zero()) return;
    const auto now = std::chrono::steady_clock::now();
    const auto longest = std::chrono::steady_clock::time_point::max() - now;
    m_end = now + std::min<std::chrono::nanoseconds>(timeout, longest);
}

std::chrono::nanoseconds Deadline::Left() const noexcept {
    if (!m_end) return std::chrono::nanoseconds::zero();
    return std::max<std::chrono::nanoseconds>(*m_end - std::chrono::steady_clock::now(),
                                              std::chrono::nanoseconds::zero());
}

PacketSource::PacketSource(const Config& config, RxSocket& socket, std::pmr::memory_resource* memory)
    : m_topic{config.topic},
      m_ignore_checksum{config.ignore_checksum},
      m_queue_limit{config.queue},
      m_socket{socket},
      m_pool{config.batch + config.queue + 2, memory},
      m_batch(config.batch, memory),
      m_iovs(config.batch * IOVS, memory),
      m_messages(config.batch, memory),
      m_queue(memory) {
    m_queue.reserve(config.queue + config.batch);
    for (std::size_t i = 0; i < m_messages.size(); ++i) {
        m_messages[i].msg_hdr.msg_iov = &m_iovs[i * IOVS];
        m_messages[i].msg_hdr.msg_iovlen = IOVS;
    }
}

void PacketSource::AllowHeld(std::size_t count) {
    m_pool.Grow(count);
}

void PacketSource::AllowEarly(std::size_t count) {
    m_early_limit = count;
    m_pool.Grow(count);
    m_queue.reserve(m_queue.capacity() + count);
}

void PacketSource::Restart() noexcept {
    for (Slot* slot : m_queue) m_pool.Give(slot);
    m_queue.clear();
    m_whole_in_queue = false;
    m_past_count = 0;
    m_given_up = 0;
    m_delivered.reset();
    ForgetLate();
    m_misfits = 0;
    DrainSocket();
    m_counters = {};
    m_dropped_before = m_socket.Dropped();
}

void PacketSource::DrainSocket() noexcept {
    for (std::size_t drained = 0; drained < MAX_DRAINED; drained += m_read) {
        while (m_expected < m_batch.size() && Expect({})) {
        }
        if (m_expected == 0 || Read(Deadline{std::chrono::nanoseconds::zero()})) return;
        for (const Incoming& packet : Batch()) {
            if (packet.slot != nullptr) m_pool.Give(packet.slot);
        }
    }
}

RxCounters PacketSource::ReadCounters() const noexcept {
    RxCounters counters = m_counters;
    counters.dropped = m_socket.Dropped() - m_dropped_before;
    return counters;
}

bool PacketSource::Expect(std::span<std::byte> place) noexcept {
    if (m_pool.Available() == 0) return false;
    Slot* slot = m_pool.Take();
    place = place.first(std::min(place.size(), Slot::SPILL_SIZE));
    m_batch[m_expected] = {slot, place, false};
    iovec* iovs = &m_iovs[m_expected * IOVS];
    iovs[0] = {slot->Wire(), m_prefix};
    iovs[1] = {place.data(), place.size()};
    // The rest of a body that is longer than expected, where it will stand when the body is lifted.
    iovs[2] = {slot->spill + place.size(), Slot::SPILL_SIZE - place.size()};
    ++m_expected;
    return true;
}

std::error_code PacketSource::Read(const Deadline& deadline) noexcept {
    std::error_code error;
    m_read = 0;
    while (m_read == 0) {
        m_read = m_socket.ReceiveBatch(std::span{m_messages}.first(m_expected), error);
        if (m_read != 0) break;
        if (error != std::errc::operation_would_block) break;
        const auto left = deadline.Left();
        error = left.count() == 0 ? std::make_error_code(std::errc::timed_out) : m_socket.WaitReadable(left);
        if (error) break;
    }
    for (std::size_t i = m_read; i < m_expected; ++i) m_pool.Give(m_batch[i].slot);
    m_expected = 0;
    m_counters.packets += m_read;
    for (std::size_t i = 0; i < m_read; ++i) {
        if (!IsValid(m_batch[i], m_messages[i])) m_pool.Give(std::exchange(m_batch[i].slot, nullptr));
    }
    return error;
}

bool PacketSource::IsValid(const Incoming& packet, const mmsghdr& message) noexcept {
    const auto count = [](std::uint64_t& counter) {
        ++counter;
        return false;
    };
    const std::size_t size = message.msg_len;
    if (size < sizeof(wire::QudexHeader)) return count(m_counters.short_ones);
    const wire::QudexHeader& header = packet.slot->Header();
    if (header.magic != wire::QUDEX_MAGIC || header.version != wire::QUDEX_VERSION ||
        header.topic != m_topic) {
        return count(m_counters.foreign);
    }
    const std::size_t payload_size = size - sizeof(wire::QudexHeader);
    const bool truncated = (message.msg_hdr.msg_flags & MSG_TRUNC) != 0;
    if (payload_size > header.payload_size || truncated) return count(m_counters.long_ones);
    if (payload_size < header.payload_size || size < m_prefix) return count(m_counters.short_ones);
    if (header.frame_number == 0 || header.frame_number > header.num_frames)
        return count(m_counters.malformed);
    packet.slot->body_size = size - m_prefix;
    if (!m_ignore_checksum && !ChecksumFits(packet)) return count(m_counters.checksum);
    return true;
}

bool PacketSource::ChecksumFits(const Incoming& packet) const noexcept {
    const wire::QudexHeader& header = packet.slot->Header();
    if ((header.flags & wire::QUDEX_HAS_CHECKSUM) == 0) return true;
    wire::QudexHeader unsigned_header = header;
    unsigned_header.checksum = 0;
    const std::size_t in_place = std::min(packet.expected.size(), packet.slot->body_size);
    Crc32c crc;
    crc.Add(std::as_bytes(std::span{&unsigned_header, 1}));
    crc.Add(std::span{packet.slot->prefix}.first(m_prefix - sizeof(header)));
    crc.Add(packet.expected.first(in_place));
    crc.Add({packet.slot->spill + in_place, packet.slot->body_size - in_place});
    return crc.Value() == header.checksum;
}

void PacketSource::Lift(std::span<Incoming> packets) noexcept {
    for (Incoming& packet : packets) {
        if (packet.slot == nullptr || packet.lifted) continue;
        packet.lifted = true;
        const std::size_t in_place = std::min(packet.expected.size(), packet.slot->body_size);
        if (in_place != 0) std::memcpy(packet.slot->spill, packet.expected.data(), in_place);
    }
}

bool PacketSource::Enqueue(Slot* slot) noexcept {
    if (IsStale(*slot)) {
        DropStale(slot);
        return false;
    }
    for (const Slot* other : m_queue) {
        std::uint64_t* conflict = Conflict(*slot, *other);
        if (conflict == nullptr) continue;
        ++*conflict;
        m_pool.Give(slot);
        return false;
    }
    m_queue.push_back(slot);
    m_whole_in_queue = m_whole_in_queue || IsWholeInQueue(*slot);
    return true;
}

std::uint64_t* PacketSource::Conflict(const Slot& slot, const Slot& other) noexcept {
    if (slot.packet.SampleId() != other.packet.SampleId()) return nullptr;
    if (slot.packet.ComponentId() != other.packet.ComponentId()) return &m_counters.foreign;
    if (slot.packet.NumFrames() != other.packet.NumFrames()) return &m_counters.malformed;
    return slot.packet.FrameNumber() == other.packet.FrameNumber() ? &m_counters.duplicate : nullptr;
}

void PacketSource::DropMisfit(Slot* slot) noexcept {
    ++m_counters.malformed;
    ++m_misfits;
    m_pool.Give(slot);
}

void PacketSource::DropStale(Slot* slot, const std::error_code& misfit) noexcept {
    if (misfit && !IsOver(*slot)) return DropMisfit(slot);
    ++m_counters.stale;
    NoteLate(*slot);
    m_pool.Give(slot);
}

void PacketSource::NoteLate(const Slot& slot) noexcept {
    if (IsOver(slot)) return;
    const qudex::Packet& packet = slot.packet;
    const std::uint32_t id = packet.SampleId();
    const bool same_stream =
        m_late.num_frames == packet.NumFrames() && m_late.component == packet.ComponentId();
    if (!same_stream || id != m_late.id) {
        // Some senders never complete such a run: they number their samples in large steps, or send frames
        // out of order. Their stream is followed without a run once none of many samples was delivered.
        if (++m_late_samples > MAX_LATE_ALONE) return FollowLate();
        const bool goes_on = same_stream && IsShortlyBefore(m_late.id, id);
        m_late = {id, packet.ComponentId(), packet.NumFrames(), 0, goes_on ? m_late.whole : 0};
    }
    // In the order of their numbers, so that none counts twice.
    if (packet.FrameNumber() != m_late.frames + 1) return;
    if (++m_late.frames == packet.NumFrames() && ++m_late.whole == MAX_LATE_SAMPLES) FollowLate();
}

void PacketSource::FollowLate() noexcept {
    m_delivered.reset();
    ForgetLate();
}

void PacketSource::ForgetLate() noexcept {
    m_late = {};
    m_late_samples = 0;
}

void PacketSource::DropStaleFromQueue() noexcept {
    auto kept = m_queue.begin();
    for (Slot* slot : m_queue) {
        if (!IsStale(*slot)) {
            *kept++ = slot;
            continue;
        }
        DropStale(slot);
    }
    m_queue.erase(kept, m_queue.end());
    RecheckQueue();
}

const Slot* PacketSource::NextInQueue() const noexcept {
    if (m_queue.empty()) return nullptr;
    const Slot* next = m_queue.front();
    for (const Slot* slot : m_queue) {
        if (IsShortlyBefore(slot->packet.SampleId(), next->packet.SampleId())) next = slot;
    }
    return next;
}

bool PacketSource::IsWholeInQueue(const Slot& slot) const noexcept {
    const std::size_t num_frames = slot.packet.NumFrames();
    if (num_frames > m_queue.size()) return false;
    const auto in_queue = std::count_if(m_queue.begin(), m_queue.end(), [&slot](const Slot* other) {
        return other->packet.SampleId() == slot.packet.SampleId() &&
               other->packet.NumFrames() == slot.packet.NumFrames();
    });
    return static_cast<std::size_t>(in_queue) == num_frames;
}

void PacketSource::RecheckQueue() noexcept {
    m_whole_in_queue = std::any_of(m_queue.begin(), m_queue.end(),
                                   [this](const Slot* slot) { return IsWholeInQueue(*slot); });
}

void PacketSource::SampleIsOver(std::uint32_t id, time_point latest, bool delivered) noexcept {
    m_past[m_past_count % m_past.size()] = {id, latest};
    ++m_past_count;
    m_misfits = 0;
    if (!delivered) {
        ++m_given_up;
        return;
    }
    CountMissed(id);
    m_given_up = 0;
    m_delivered = PastSample{id, latest};
    ForgetLate();
}

// Those given up were not missed: packets of them have come.
void PacketSource::CountMissed(std::uint32_t id) noexcept {
    if (!m_delivered) return;
    const std::uint32_t gap = id - m_delivered->id - 1;
    if (gap < MAX_GAP) m_counters.missed += gap - std::min(gap, m_given_up);
}

bool PacketSource::IsStale(const Slot& slot) const noexcept {
    return IsLate(slot) || IsOver(slot);
}

bool PacketSource::IsLate(const Slot& slot) const noexcept {
    if (!m_delivered || IsNewer(slot, m_delivered->latest)) return false;
    const std::uint32_t id = slot.packet.SampleId();
    if (IsShortlyBefore(id, m_delivered->id)) return true;
    return IsOlder(slot, m_delivered->latest) && !IsShortlyBefore(m_delivered->id, id);
}

std::span<const PacketSource::PastSample> PacketSource::PastSamples() const noexcept {
    return std::span{m_past}.first(std::min(m_past_count, m_past.size()));
}

bool PacketSource::IsOver(const Slot& slot) const noexcept {
    const auto past = PastSamples();
    return std::any_of(past.begin(), past.end(), [&slot](const PastSample& sample) {
        return sample.id == slot.packet.SampleId() && !IsNewer(slot, sample.latest);
    });
}

}  // namespace pktwire::detail
