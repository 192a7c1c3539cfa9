#include <pktwire/detail/sampleCollector.hpp>
#include <pktwire/qudex.hpp>

#include <algorithm>
#include <cstring>
#include <utility>

namespace pktwire::detail {

SampleCollector::SampleCollector(PacketSource& source, std::uint16_t max_frames,
                                 std::pmr::memory_resource* memory)
    : m_source{source}, m_max_frames{max_frames}, m_in(max_frames / 64U + 1U, memory) {}

std::error_code SampleCollector::Collect(SampleLayout& layout, std::chrono::nanoseconds timeout,
                                         EndPackets& ends) noexcept {
    const Deadline deadline{timeout};
    std::error_code error;
    Step step = TakeFromQueue(layout, error);
    while (step == Step::going_on) {
        if (IsSampleInWork() && m_source.IsSampleInWorkHopeless()) return AbandonSample();
        if (!ExpectMissingFrames(layout)) return std::make_error_code(std::errc::no_buffer_space);
        error = m_source.Read(deadline);
        if (error) return error;
        m_progress = false;
        step = TakeFromBatch(layout, error);
        // A flood of packets that bring nothing must not hold the caller.
        if (step == Step::going_on && !m_progress && deadline.Left().count() == 0) {
            return std::make_error_code(std::errc::timed_out);
        }
    }
    if (step == Step::whole) ends = std::move(m_ends);
    return error;
}

std::error_code SampleCollector::AbandonSample() noexcept {
    ++m_source.Counters().given_up;
    m_source.Counters().lost += m_missing;
    EndSample(false);
    m_ends = {};
    return qudex::RxErrc::sample_given_up;
}

SampleCollector::Step SampleCollector::TakeFromQueue(SampleLayout& layout, std::error_code& error) noexcept {
    if (IsSampleInWork() || m_source.Queue().empty()) return Step::going_on;
    m_source.DropStaleFromQueue();
    auto& queue = m_source.Queue();
    const Slot* next = m_source.NextInQueue();
    if (next == nullptr) return Step::going_on;
    const std::uint32_t id = next->packet.SampleId();
    Step step = Step::going_on;
    auto kept = queue.begin();
    for (Slot* slot : queue) {
        if (step != Step::going_on || slot->packet.SampleId() != id) {
            *kept++ = slot;
            continue;
        }
        Incoming packet{slot, {}, true};
        step = Accept(layout, {&packet, 1}, error);
    }
    queue.erase(kept, queue.end());
    m_source.RecheckQueue();
    return step;
}

SampleCollector::Step SampleCollector::TakeFromBatch(SampleLayout& layout, std::error_code& error) noexcept {
    const std::span<Incoming> batch = m_source.Batch();
    Step step = Step::going_on;
    for (std::size_t i = 0; i < batch.size(); ++i) {
        Slot* slot = batch[i].slot;
        if (slot == nullptr) continue;
        const bool is_ours = IsOfSampleInWork(*slot);
        if (!is_ours && m_source.IsStale(*slot)) {
            m_source.DropStale(std::exchange(batch[i].slot, nullptr), layout.Check(*slot));
        } else if (step == Step::going_on && (is_ours || !IsSampleInWork())) {
            step = Accept(layout, batch.subspan(i), error);
        } else if (layout.Check(*slot)) {
            m_source.DropMisfit(std::exchange(batch[i].slot, nullptr));
        } else {
            // Its turn comes later. The places in the caller's memory are needed for those whose turn it is.
            m_source.Lift(batch.subspan(i));
            if (!m_source.Enqueue(std::exchange(batch[i].slot, nullptr))) continue;
            ++m_source.Counters().ahead;
            m_progress = true;
        }
    }
    return step;
}

SampleCollector::Step SampleCollector::Accept(SampleLayout& layout, std::span<Incoming> packets,
                                              std::error_code& error) noexcept {
    Incoming& packet = packets.front();
    RxCounters& counters = m_source.Counters();
    if (!IsSampleInWork()) {
        error = Begin(layout, *packet.slot);
        if (error) return RefuseSample(std::exchange(packet.slot, nullptr));
    }
    const std::uint16_t frame = packet.slot->packet.FrameNumber();
    if (packet.slot->packet.ComponentId() != m_component) {
        Drop(packet, counters.foreign);
        return Step::going_on;
    }
    if (packet.slot->packet.NumFrames() != m_num_frames) {
        Drop(packet, counters.malformed);
        return Step::going_on;
    }
    if (IsIn(frame)) {
        Drop(packet, counters.duplicate);
        return Step::going_on;
    }
    std::span<std::byte> place;
    error = layout.Place(*packet.slot, place);
    if (error) return RefuseSample(std::exchange(packet.slot, nullptr));

    const bool in_place =
        !packet.lifted && place.data() == packet.expected.data() && place.size() <= packet.expected.size();
    if (!in_place && !place.empty()) {
        m_source.Lift(packets);
        std::memcpy(place.data(), packet.slot->spill, place.size());
        ++counters.copied;
    }
    m_in[frame / 64U] |= std::uint64_t{1} << (frame % 64U);
    if (frame < m_highest) ++counters.reordered;
    m_highest = std::max(m_highest, frame);
    m_latest = std::max(m_latest, packet.slot->packet.Timestamp());
    m_progress = true;
    m_source.NoteProgress();
    Keep(std::exchange(packet.slot, nullptr));
    if (--m_missing != 0) return Step::going_on;

    error = layout.Finish();
    if (error) return RefuseSample(nullptr);
    ++counters.samples;
    EndSample(true);
    return Step::whole;
}

std::error_code SampleCollector::Begin(SampleLayout& layout, const Slot& slot) noexcept {
    m_id = slot.packet.SampleId();
    m_latest = slot.packet.Timestamp();
    m_component = slot.packet.ComponentId();
    const std::error_code error = layout.Check(slot);
    if (error) return error;
    m_num_frames = slot.packet.NumFrames();
    m_missing = m_num_frames;
    layout.Begin(slot);
    return {};
}

SampleCollector::Step SampleCollector::RefuseSample(Slot* slot) noexcept {
    ++m_source.Counters().refused;
    if (slot != nullptr) m_source.Release(slot);
    EndSample(false);
    m_ends = {};
    return Step::refused;
}

void SampleCollector::Drop(Incoming& packet, std::uint64_t& counter) noexcept {
    ++counter;
    m_source.Release(std::exchange(packet.slot, nullptr));
}

bool SampleCollector::ExpectMissingFrames(const SampleLayout& layout) noexcept {
    const std::uint16_t num_frames =
        IsSampleInWork() ? m_num_frames : std::clamp<std::uint16_t>(layout.ExpectedFrames(), 1, m_max_frames);
    // No more packets than the sample still needs, so that those of the next one stay in the socket.
    std::size_t wanted =
        std::min<std::size_t>(m_source.BatchSize(), IsSampleInWork() ? m_missing : num_frames);
    std::size_t expected = 0;
    // Frames come in order; those that were left out come last, if they come.
    for (std::uint16_t frame = m_highest; expected < wanted; ++expected) {
        do {
            frame = frame >= num_frames ? std::uint16_t{1} : static_cast<std::uint16_t>(frame + 1);
        } while (IsIn(frame));
        if (!m_source.Expect(layout.ExpectedPlace(frame))) break;
    }
    return expected != 0;
}

void SampleCollector::Keep(Slot* slot) noexcept {
    const std::uint16_t frame = slot->packet.FrameNumber();
    if (frame == 1) {
        m_ends.first.reset(&slot->packet);
    } else if (frame == m_num_frames) {
        m_ends.last.reset(&slot->packet);
    } else {
        m_source.Release(slot);
    }
}

void SampleCollector::EndSample(bool delivered) noexcept {
    m_source.SampleIsOver(m_id, m_latest, delivered);
    std::fill(m_in.begin(), m_in.end(), 0);
    m_num_frames = 0;
    m_missing = 0;
    m_highest = 0;
}

}  // namespace pktwire::detail
