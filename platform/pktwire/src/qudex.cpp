#include <pktwire/detail/crc32c.hpp>
#include <pktwire/qudex.hpp>

#include <algorithm>
#include <stdexcept>
#include <string>

namespace pktwire::qudex {

namespace {

class Category final : public std::error_category {
public:
    const char* name() const noexcept override { return "qudex"; }
    std::string message(int value) const override {
        switch (static_cast<RxErrc>(value)) {
            case RxErrc::sample_given_up:
                return "sample given up, frames are missing";
            case RxErrc::sample_size:
                return "sample of another size than expected";
            case RxErrc::frame_count:
                return "sample of a number of frames that can't be received";
            case RxErrc::frame_places:
                return "the frames don't make up the sample";
        }
        return "unknown QUDEX error " + std::to_string(value);
    }
};

constexpr std::size_t HELD_SAMPLES = 4;
constexpr std::uint64_t DEFAULT_QUEUE = 16;
constexpr std::uint64_t DEFAULT_PIECES = 16;

std::pmr::memory_resource* OrDefault(std::pmr::memory_resource* memory) noexcept {
    return memory != nullptr ? memory : std::pmr::get_default_resource();
}

detail::PacketSource::Config SourceConfig(const Receiver::Config& config, const RxSocket& socket) {
    if (config.num_frames == 0) throw std::runtime_error("a QUDEX receiver needs num_frames");
    if (config.buf_packets > Receiver::MAX_BUF_PACKETS) {
        throw std::runtime_error("buf_packets is " + std::to_string(config.buf_packets) + ", at most " +
                                 std::to_string(Receiver::MAX_BUF_PACKETS) + " are possible");
    }
    const auto queue = config.buf_packets != 0 ? config.buf_packets
                                               : std::min<std::uint64_t>(config.num_frames, DEFAULT_QUEUE);
    const auto batch = std::clamp<std::size_t>(socket.BatchSize(), 1, config.num_frames);
    return {config.topic, config.checksum_force_ignore, batch, static_cast<std::size_t>(queue)};
}

}  // namespace

const std::error_category& RxCategory() noexcept {
    static const Category category;
    return category;
}

std::error_code make_error_code(RxErrc code) noexcept {
    return {static_cast<int>(code), RxCategory()};
}

Receiver::Receiver(const Config& config, RxSocket& socket, std::pmr::memory_resource* memory)
    : m_config{config},
      m_source{SourceConfig(config, socket), socket, OrDefault(memory)},
      m_collector{m_source, config.num_frames, OrDefault(memory)},
      m_layout{config.num_frames, OrDefault(memory)} {
    m_source.AllowHeld(2 * HELD_SAMPLES);
}

std::pair<std::error_code, std::optional<Receiver::SampleHandle>> Receiver::ReceiveSample(
    gsl::span<std::byte> buffer, std::chrono::nanoseconds timeout) noexcept {
    if (m_layout.SetBuffer({buffer.data(), buffer.size()}) && m_collector.IsSampleInWork()) {
        return {m_collector.AbandonSample(), std::nullopt};
    }
    detail::EndPackets ends;
    const std::error_code error = m_collector.Collect(m_layout, timeout, ends);
    if (error) return {error, std::nullopt};
    return {error, SampleHandle{std::move(ends.first), std::move(ends.last)}};
}

void Receiver::Restart() noexcept {
    m_collector.AbandonSample();
    m_source.Restart();
}

Sender::Sender(const Config& config, TxSocket& socket, std::pmr::memory_resource* memory)
    : m_config{config},
      m_socket{socket},
      m_heads(std::min<std::size_t>(config.num_frames, BATCH), OrDefault(memory)),
      m_iovs(2 * m_heads.size(), OrDefault(memory)),
      m_messages(m_heads.size(), OrDefault(memory)),
      m_gather(OrDefault(memory)) {
    if (config.num_frames == 0) throw std::runtime_error("a QUDEX sender needs num_frames");
    if (config.niovs > MAX_NIOVS) {
        throw std::runtime_error("niovs is " + std::to_string(config.niovs) + ", at most " +
                                 std::to_string(MAX_NIOVS) + " are possible");
    }
    if (config.sample_size > MAX_SAMPLE_SIZE) {
        throw std::runtime_error("sample_size is too large: " + std::to_string(config.sample_size));
    }
    m_gather.resize(static_cast<std::size_t>((config.niovs != 0 ? config.niovs : DEFAULT_PIECES) + 1));
    for (std::size_t i = 0; i < m_messages.size(); ++i) {
        m_messages[i].msg_hdr.msg_iov = &m_iovs[2 * i];
        m_messages[i].msg_hdr.msg_iovlen = 2;
    }
}

void Sender::SetSampleId(unsigned id) noexcept {
    m_sample_id = id;
    m_next_frame = 1;
    m_place = 0;
}

std::error_code Sender::SendSample(gsl::span<const std::byte> sample, std::optional<time_point> timestamp,
                                   std::optional<std::uint16_t> extra) noexcept {
    const bool other_size = m_config.sample_size != 0 && sample.size() != m_config.sample_size;
    if (other_size || sample.size() > MAX_SAMPLE_SIZE) {
        return std::make_error_code(std::errc::message_size);
    }
    BeginSample(static_cast<std::uint32_t>(sample.size()));
    const time_point time = Timestamp(timestamp);
    const std::size_t share = detail::EqualShare(sample.size(), m_config.num_frames);
    for (std::uint16_t i = 0; i < m_config.num_frames; ++i) {
        const std::size_t offset = std::min(i * share, sample.size());
        Queue({}, {sample.data() + offset, std::min(share, sample.size() - offset)}, time, extra);
    }
    return EndSample();
}

std::error_code Sender::SendPacket(detail::IovsBuilder<const std::byte>&& pieces,
                                   std::optional<time_point> timestamp,
                                   std::optional<std::uint16_t> extra) noexcept {
    if (pieces.Headroom() == 0) return std::make_error_code(std::errc::invalid_argument);
    if (pieces.Pieces().size() >= m_gather.size())
        return std::make_error_code(std::errc::argument_list_too_long);
    std::size_t size = 0;
    for (const auto& piece : pieces.Pieces()) size += piece.size();
    if (size > wire::MAX_DATAGRAM - sizeof(wire::QudexHeader))
        return std::make_error_code(std::errc::message_size);
    if (m_next_frame == 1) BeginSample(static_cast<std::uint32_t>(m_config.sample_size));

    const bool is_last = m_next_frame == m_config.num_frames;
    wire::QudexHeader header = NextHeader(size, Timestamp(timestamp), extra);
    if (m_config.checksum_enable) {
        detail::Crc32c crc;
        crc.Add(std::as_bytes(std::span{&header, 1}));
        for (const auto& piece : pieces.Pieces()) crc.Add({piece.data(), piece.size()});
        header.checksum = crc.Value();
    }
    pieces.Prepend(gsl::as_bytes(gsl::span<const wire::QudexHeader>{&header, 1}));
    mmsghdr message{};
    message.msg_hdr.msg_iov = m_gather.data();
    for (const auto& piece : pieces.Pieces()) {
        // The system's type has no const; a send only reads.
        m_gather[message.msg_hdr.msg_iovlen++] = {const_cast<std::byte*>(piece.data()), piece.size()};
    }
    if (is_last) SetSampleId(m_sample_id + 1);
    return m_socket.Send({&message, 1});
}

void Sender::BeginSample(std::uint32_t size) noexcept {
    m_next_frame = 1;
    m_place = 0;
    m_sample_size = size;
    m_error.clear();
}

std::error_code Sender::EndSample() noexcept {
    Flush();
    SetSampleId(m_sample_id + 1);
    return m_error;
}

wire::QudexHeader Sender::NextHeader(std::size_t payload_size, time_point timestamp,
                                     std::optional<std::uint16_t> extra) noexcept {
    wire::QudexHeader header;
    header.magic = wire::QUDEX_MAGIC;
    header.version = wire::QUDEX_VERSION;
    header.flags = static_cast<std::uint8_t>((m_config.checksum_enable ? wire::QUDEX_HAS_CHECKSUM : 0U) |
                                             (extra ? wire::QUDEX_HAS_EXTRA : 0U));
    header.component_id = m_config.component_id;
    header.sample_id = m_sample_id;
    header.timestamp = timestamp;
    header.frame_number = m_next_frame++;
    header.num_frames = m_config.num_frames;
    header.topic = m_config.topic;
    header.place = m_place;
    header.payload_size = static_cast<std::uint32_t>(payload_size);
    header.extra = extra.value_or(0);
    header.sample_size = m_sample_size;
    m_place += static_cast<std::uint32_t>(payload_size);
    return header;
}

time_point Sender::Timestamp(std::optional<time_point> timestamp) const {
    if (timestamp) return *timestamp;
    return m_config.clock ? m_config.clock() : time_point{};
}

void Sender::Queue(std::span<const std::byte> upper, std::span<const std::byte> body, time_point timestamp,
                   std::optional<std::uint16_t> extra) noexcept {
    Head& head = m_heads[m_queued];
    head.qudex = NextHeader(upper.size() + body.size(), timestamp, extra);
    std::copy(upper.begin(), upper.end(), head.upper.begin());
    if (m_config.checksum_enable) {
        detail::Crc32c crc;
        crc.Add(std::as_bytes(std::span{&head.qudex, 1}));
        crc.Add(upper);
        crc.Add(body);
        head.qudex.checksum = crc.Value();
    }
    m_iovs[2 * m_queued] = {&head, sizeof(head.qudex) + upper.size()};
    m_iovs[2 * m_queued + 1] = {const_cast<std::byte*>(body.data()), body.size()};
    if (++m_queued == m_heads.size()) Flush();
}

void Sender::Flush() noexcept {
    const auto queued = std::span{m_messages}.first(std::exchange(m_queued, 0));
    // Once a frame failed, the rest of the sample is of no use to anybody.
    if (queued.empty() || (m_error && m_error != std::errc::connection_refused)) return;
    const std::error_code error = m_socket.Send(queued);
    if (error) m_error = error;
}

}  // namespace pktwire::qudex
