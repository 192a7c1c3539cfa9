#include <pktwire/lspx.hpp>

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

namespace pktwire::lspx {

namespace {

class Category final : public std::error_category {
public:
    const char* name() const noexcept override { return "lspx"; }
    std::string message(int value) const override {
        switch (static_cast<RxErrc>(value)) {
            case RxErrc::endianness:
                return "data units of the other byte order";
            case RxErrc::data_unit_size:
                return "data units of another size than configured";
            case RxErrc::extended_info_size:
                return "extended information of another size than configured";
            case RxErrc::padding_size:
                return "leading padding of another size than configured";
            case RxErrc::header:
                return "LSPX header of an unknown version or in contradiction to itself";
            case RxErrc::payload_missing:
                return "payload is missing";
            case RxErrc::other_packet:
                return "packet of another kind";
            case RxErrc::buffer_too_small:
                return "the payload does not fit into the buffer";
            case RxErrc::unit_count:
                return "the packets do not hold the data units that the leader announces";
        }
        return "unknown LSPX error " + std::to_string(value);
    }
};

constexpr std::uint64_t DEFAULT_HELD_SAMPLES = 2;
constexpr std::size_t MAX_UNIT_SIZE = 255;
// Packets of a sample that is read packet by packet which may come before their turn: 64 KiB each.
constexpr std::size_t MAX_EARLY = 64;

// Builds the object that stands for a packet inside the packet's own storage.
template <class Packet>
std::unique_ptr<const Packet, Receiver::PacketDeleter> Wrap(qudex::PacketPtr packet) noexcept {
    using pktwire::detail::Slot;
    static_assert(sizeof(Packet) <= sizeof(Slot::upper) && std::is_trivially_destructible_v<Packet>);
    auto* slot = reinterpret_cast<Slot*>(const_cast<qudex::Packet*>(packet.get()));
    const wire::LspxHeader header = slot->Lspx();
    return std::unique_ptr<const Packet, Receiver::PacketDeleter>{new (slot->upper.data())
                                                                      Packet{std::move(packet), header}};
}

template <class Packet>
Receiver::PacketResult<Packet> ToResult(const detail::PacketReader::Result& read) noexcept {
    if (read.slot == nullptr) return {read.error, nullptr};
    return {read.error, Wrap<Packet>(qudex::PacketPtr{&read.slot->packet})};
}

detail::PartsLayout::Config LayoutConfig(const Receiver::Config& config) {
    if (config.data_unit_size == 0) throw std::runtime_error("an LSPX receiver needs data_unit_size");
    if (config.buf_samples > Receiver::MAX_BUF_SAMPLES) {
        throw std::runtime_error("buf_samples is " + std::to_string(config.buf_samples) + ", at most " +
                                 std::to_string(Receiver::MAX_BUF_SAMPLES) + " are possible");
    }
    return {config.endianness, config.leader_extended_info_size, config.trailer_extended_info_size,
            config.leading_padding_size, config.data_unit_size};
}

std::span<std::byte> ToStd(gsl::span<std::byte> span) noexcept {
    return {span.data(), span.size()};
}

}  // namespace

// Callers of other layers read these fields; nothing may move.
namespace detail {
struct PacketLayout {
    using Leader = Receiver::LeaderPacket;
    template <std::size_t FieldInHeader>
    static constexpr std::size_t AT = offsetof(Leader, m_header) + FieldInHeader;
    static_assert(std::is_standard_layout_v<Leader>);
    static_assert(offsetof(Leader, m_packet) == 0);
    static_assert(AT<offsetof(wire::LspxHeader, status)> == 13);
    static_assert(AT<offsetof(wire::LspxHeader, num_units)> == 16);
    static_assert(AT<offsetof(wire::LspxHeader, first_unit)> == 20);
};
}  // namespace detail

const std::error_category& RxCategory() noexcept {
    static const Category category;
    return category;
}

std::error_code make_error_code(RxErrc code) noexcept {
    return {static_cast<int>(code), RxCategory()};
}

Receiver::Receiver(const Config& config, QudexReceiver receiver, std::pmr::memory_resource* /*memory*/)
    : m_receiver{std::move(receiver)},
      m_layout{LayoutConfig(config), m_receiver->m_config.num_frames},
      m_reader{m_receiver->m_source, m_layout} {
    if (m_receiver->m_config.num_frames < MIN_FRAMES) {
        throw std::runtime_error("an LSPX receiver needs num_frames of 2 or more, for leader and trailer");
    }
    m_receiver->m_source.SetPrefix(sizeof(wire::QudexHeader) + sizeof(wire::LspxHeader) +
                                   config.leading_padding_size);
    m_receiver->m_source.AllowEarly(std::min<std::size_t>(m_receiver->m_config.num_frames, MAX_EARLY));
    if (config.buf_samples > DEFAULT_HELD_SAMPLES) {
        m_receiver->m_source.AllowHeld(2 *
                                       static_cast<std::size_t>(config.buf_samples - DEFAULT_HELD_SAMPLES));
    }
}

void Receiver::Restart() noexcept {
    m_reader.LeaveSample();
    m_receiver->Restart();
}

std::pair<std::error_code, Receiver::Sample> Receiver::ReceiveSample(
    gsl::span<std::byte> leader_info, gsl::span<std::byte> payload, gsl::span<std::byte> trailer_info,
    std::chrono::nanoseconds timeout) noexcept {
    std::pair<std::error_code, Sample> result;
    auto& collector = m_receiver->m_collector;
    m_reader.LeaveSample();
    const bool moved = m_layout.SetParts({ToStd(leader_info), ToStd(payload), ToStd(trailer_info)});
    if (moved && collector.IsSampleInWork()) {
        result.first = collector.AbandonSample();
        return result;
    }
    pktwire::detail::EndPackets ends;
    result.first = collector.Collect(m_layout, timeout, ends);
    if (result.first) return result;
    result.second = {Wrap<LeaderPacket>(std::move(ends.first)), Wrap<TrailerPacket>(std::move(ends.last))};
    return result;
}

Receiver::PacketResult<Receiver::LeaderPacket> Receiver::ReceiveLeaderPacket(
    pktwire::detail::IovsBuilder<std::byte>&& pieces, std::chrono::nanoseconds timeout) noexcept {
    if (m_receiver->m_collector.IsSampleInWork()) m_receiver->m_collector.AbandonSample();
    return ToResult<LeaderPacket>(m_reader.ReadLeader(pieces.Pieces(), timeout));
}

Receiver::PacketResult<Receiver::PayloadPacket> Receiver::ReceivePayloadPacket(
    pktwire::detail::IovsBuilder<std::byte>&& pieces, std::chrono::nanoseconds timeout) noexcept {
    return ToResult<PayloadPacket>(m_reader.ReadPayload(pieces.Pieces(), timeout));
}

Receiver::PacketResult<Receiver::TrailerPacket> Receiver::ReceiveTrailerPacket(
    pktwire::detail::IovsBuilder<std::byte>&& pieces, std::chrono::nanoseconds timeout) noexcept {
    return ToResult<TrailerPacket>(m_reader.ReadTrailer(pieces.Pieces(), timeout));
}

Sender::Sender(const Config& config, qudex::Sender& sender) : m_config{config}, m_sender{sender} {
    if (config.frame_size == 0) throw std::runtime_error("an LSPX sender needs frame_size");
    if (sender.NumFrames() < MIN_FRAMES) {
        throw std::runtime_error(
            "an LSPX sender needs num_frames of 3 or more, for leader, payload and trailer");
    }
    const std::size_t given = config.padding.size();
    for (std::size_t i = 0; given != 0 && i < config.leading_padding_size; ++i) {
        m_head[sizeof(wire::LspxHeader) + i] = config.padding[i % given];
    }
}

std::error_code Sender::SendSample(gsl::span<const std::byte> leader_info, gsl::span<const std::byte> payload,
                                   gsl::span<const std::byte> trailer_info,
                                   std::optional<time_point> timestamp, std::optional<std::uint16_t> extra,
                                   std::optional<Status> status) noexcept {
    const std::size_t unit_size = payload.size() / m_config.frame_size;
    if (payload.size() % m_config.frame_size != 0 || unit_size == 0 || unit_size > MAX_UNIT_SIZE ||
        leader_info.size() != m_config.leader_extended_info_size ||
        trailer_info.size() != m_config.trailer_extended_info_size) {
        return std::make_error_code(std::errc::invalid_argument);
    }
    const auto unit_size_byte = static_cast<std::uint8_t>(unit_size);
    const Status told = status.value_or(Status::good);
    const time_point time = m_sender.Timestamp(timestamp);
    const std::uint16_t num_frames = m_sender.NumFrames();
    m_sender.BeginSample(0);

    wire::LspxHeader header = Header(wire::LspxKind::leader, unit_size_byte, told);
    header.info_size = m_config.leader_extended_info_size;
    Queue(header, leader_info, time, extra);

    header = Header(wire::LspxKind::payload, unit_size_byte, told);
    const std::size_t share = detail::UnitsPerPacket(m_config.frame_size, num_frames);
    for (std::size_t packet = 0; packet + 2 < num_frames; ++packet) {
        const std::size_t first = std::min<std::size_t>(packet * share, m_config.frame_size);
        const std::size_t units = std::min(share, m_config.frame_size - first);
        header.first_unit = static_cast<std::uint32_t>(first + 1);
        Queue(header, payload.subspan(first * unit_size, units * unit_size), time, extra);
    }

    header = Header(wire::LspxKind::trailer, unit_size_byte, told);
    header.info_size = m_config.trailer_extended_info_size;
    Queue(header, trailer_info, time, extra);
    return m_sender.EndSample();
}

wire::LspxHeader Sender::Header(wire::LspxKind kind, std::uint8_t unit_size, Status status) const noexcept {
    wire::LspxHeader header;
    header.version = wire::LSPX_VERSION;
    header.kind = static_cast<std::uint8_t>(kind);
    header.flags = static_cast<std::uint8_t>(m_config.endianness | m_config.source);
    header.unit_size = unit_size;
    header.padding_size = m_config.leading_padding_size;
    header.status = static_cast<std::uint8_t>(status);
    header.num_units = m_config.frame_size;
    return header;
}

void Sender::Queue(const wire::LspxHeader& header, gsl::span<const std::byte> body, time_point time,
                   std::optional<std::uint16_t> extra) noexcept {
    std::memcpy(m_head.data(), &header, sizeof(header));
    m_sender.Queue(std::span{m_head}.first(sizeof(header) + header.padding_size), {body.data(), body.size()},
                   time, extra);
}

}  // namespace pktwire::lspx
