#pragma once

// LSPX sends a sample over QUDEX as a leader packet, payload packets and a trailer packet. Leader and trailer
// carry extended information; the payload is an array of data units, whose count stands in the leader.
// A Receiver and a Sender belong to one thread. After construction nothing allocates and nothing throws.

#include <pktwire/detail/lspxLayout.hpp>
#include <pktwire/detail/lspxPacketReader.hpp>
#include <pktwire/qudex.hpp>

namespace pktwire::lspx {

// The values 1 to 5, 13 and 15 refuse a sample.
enum class RxErrc {
    endianness = 1,
    data_unit_size = 2,
    extended_info_size = 3,
    padding_size = 4,
    header = 5,             // of an unknown version, or contradicting itself
    payload_missing = 6,    // the packets of the sample are through, and bytes are missing
    other_packet = 8,       // packet by packet: one of another kind was there, and is gone; ask again
    buffer_too_small = 13,  // for the data units that the leader announces
    unit_count = 15,        // the packets don't hold the data units that the leader announces
};

const std::error_category& RxCategory() noexcept;
std::error_code make_error_code(RxErrc code) noexcept;

// The status of a sample, which stands in its leader. Other values belong to the sender.
enum class Status : std::uint8_t { good = 0 };

// Flag bytes.
inline constexpr std::uint8_t BIG_ENDIAN_UNITS = 0;
inline constexpr std::uint8_t LITTLE_ENDIAN_UNITS = 8;
inline constexpr std::uint8_t REAL_SOURCE = 0;
inline constexpr std::uint8_t OTHER_SOURCE = 0x10;

namespace detail {

// What MakeRxIovsBuilder leaves free for the library.
struct RxTraits {
    static constexpr std::size_t headroom = 4;
};

template <wire::LspxKind Kind>
class Packet {
public:
    // Takes the packet over: whoever destroys this object gives it back.
    Packet(qudex::PacketPtr packet, const wire::LspxHeader& header) noexcept
        : m_packet{packet.release()}, m_header{header} {}
    Packet(const Packet&) = delete;
    Packet& operator=(const Packet&) = delete;

    const qudex::Packet& Qudex() const noexcept { return *m_packet; }
    std::uint32_t SampleId() const noexcept { return m_packet->SampleId(); }
    time_point Timestamp() const noexcept { return m_packet->Timestamp(); }
    std::uint16_t NumFrames() const noexcept { return m_packet->NumFrames(); }

    lspx::Status GetStatus() const noexcept { return lspx::Status{m_header.status}; }
    // Data units of the sample.
    std::uint32_t NumUnits() const noexcept { return m_header.num_units; }
    // Payload packets: the number of the first data unit in this packet, from 1.
    std::uint32_t FirstUnit() const noexcept { return m_header.first_unit; }
    bool IsFromRealSource() const noexcept { return (m_header.flags & OTHER_SOURCE) == 0; }

private:
    friend struct PacketLayout;
    friend struct Release;

    const qudex::Packet* m_packet;  // owned
    wire::LspxHeader m_header;
};

struct Release {
    // The object lives in its packet's own storage, and goes with it.
    template <wire::LspxKind Kind>
    static void Do(const Packet<Kind>* packet) noexcept {
        qudex::PacketDeleter{}(packet->m_packet);
    }
};

}  // namespace detail

class Receiver {
public:
    struct Config {
        std::uint8_t endianness =
            BIG_ENDIAN_UNITS;  // of the data units; a sender of the other kind is refused
        std::uint8_t leader_extended_info_size = 0;   // bytes
        std::uint8_t trailer_extended_info_size = 0;  // bytes
        std::uint8_t leading_padding_size = 0;        // bytes between the headers and the body of each packet
        std::uint8_t data_unit_size = 0;              // bytes, not 0
        std::uint64_t buf_samples = 0;                // samples whose packets may be held at a time; 0: 2
    };
    static constexpr std::uint16_t MIN_FRAMES = 2;  // leader, trailer
    static constexpr std::uint64_t MAX_BUF_SAMPLES = 1024;

    using LeaderPacket = detail::Packet<wire::LspxKind::leader>;
    using PayloadPacket = detail::Packet<wire::LspxKind::payload>;
    using TrailerPacket = detail::Packet<wire::LspxKind::trailer>;

    // Gives a packet back to the receiver that it came from, which must still live.
    struct PacketDeleter {
        template <wire::LspxKind Kind>
        void operator()(const detail::Packet<Kind>* packet) const noexcept {
            detail::Release::Do(packet);
        }
    };

    // Destroyed in reverse order: the trailer is given back first.
    struct Sample {
        std::unique_ptr<const LeaderPacket, PacketDeleter> leader;
        std::unique_ptr<const TrailerPacket, PacketDeleter> trailer;
    };

    template <class Packet>
    struct PacketResult {
        std::error_code error;
        std::unique_ptr<const Packet, PacketDeleter> packet;
    };

    using QudexReceiver = std::unique_ptr<qudex::Receiver, std::function<void(qudex::Receiver*)>>;

    // All packets live in the QUDEX receiver's memory; no other is needed here. Throws std::runtime_error on
    // a configuration that can't work.
    Receiver(const Config& config, QudexReceiver receiver, std::pmr::memory_resource* memory);

    // Waits up to `timeout` for a whole sample. The payload may be shorter than its span: the leader's
    // NumUnits() tells. Time-outs, lost samples and the spans' content are as for
    // qudex::Receiver::ReceiveSample; a sample that doesn't fit gives an error of lspx::RxErrc.
    std::pair<std::error_code, Sample> ReceiveSample(gsl::span<std::byte> leader_info,
                                                     gsl::span<std::byte> payload,
                                                     gsl::span<std::byte> trailer_info,
                                                     std::chrono::nanoseconds timeout) noexcept;

    // A sample packet by packet, for a caller who wants to place the payload after a look at the leader. The
    // packets of a sample come in the order of their frames. Errors: RxErrc::other_packet (see there),
    // std::errc::message_size (the body has no room in the pieces; the packet is gone),
    // qudex::RxErrc::sample_given_up (a packet of the sample is lost: go on with a leader).
    PacketResult<LeaderPacket> ReceiveLeaderPacket(pktwire::detail::IovsBuilder<std::byte>&& pieces,
                                                   std::chrono::nanoseconds timeout) noexcept;
    PacketResult<PayloadPacket> ReceivePayloadPacket(pktwire::detail::IovsBuilder<std::byte>&& pieces,
                                                     std::chrono::nanoseconds timeout) noexcept;
    PacketResult<TrailerPacket> ReceiveTrailerPacket(pktwire::detail::IovsBuilder<std::byte>&& pieces,
                                                     std::chrono::nanoseconds timeout) noexcept;

    // As qudex::Receiver::Restart.
    void Restart() noexcept;

    RxCounters GetCounters() const noexcept { return m_receiver->GetCounters(); }

private:
    QudexReceiver m_receiver;
    detail::PartsLayout m_layout;
    detail::PacketReader m_reader;
};

class Sender {
public:
    struct Config {
        std::uint8_t source = REAL_SOURCE;
        std::uint8_t endianness = BIG_ENDIAN_UNITS;   // of the data units, as the caller has them
        std::uint8_t leader_extended_info_size = 0;   // bytes
        std::uint8_t trailer_extended_info_size = 0;  // bytes
        std::uint32_t frame_size = 0;                 // data units in a sample, not 0
        std::uint8_t leading_padding_size = 0;        // bytes between the headers and the body of each packet
        gsl::span<const std::byte> padding{};  // what the padding is filled with, repeated; empty: zeros
    };

    static constexpr std::uint16_t MIN_FRAMES = 3;  // leader, payload, trailer

    // Sends through the QUDEX sender, which must live as long and have num_frames of MIN_FRAMES or more.
    // Throws std::runtime_error on a configuration that can't work.
    Sender(const Config& config, qudex::Sender& sender);

    // As qudex::Sender::SetSampleId.
    void SetSampleId(unsigned id) noexcept { m_sender.SetSampleId(id); }

    // The size of a data unit is payload.size() / frame_size. Errors: what the socket says,
    // std::errc::invalid_argument if an information span or the payload isn't of the configured size.
    std::error_code SendSample(gsl::span<const std::byte> leader_info, gsl::span<const std::byte> payload,
                               gsl::span<const std::byte> trailer_info, std::optional<time_point> timestamp,
                               std::optional<std::uint16_t> extra, std::optional<Status> status) noexcept;

private:
    wire::LspxHeader Header(wire::LspxKind kind, std::uint8_t unit_size, Status status) const noexcept;
    // One packet: the header and the padding behind it, then the body in place.
    void Queue(const wire::LspxHeader& header, gsl::span<const std::byte> body, time_point time,
               std::optional<std::uint16_t> extra) noexcept;

    Config m_config;
    qudex::Sender& m_sender;
    // The header of the packet in work, and the padding behind it.
    std::array<std::byte, sizeof(wire::LspxHeader) + wire::MAX_PADDING> m_head{};
};

}  // namespace pktwire::lspx

template <>
struct std::is_error_code_enum<pktwire::lspx::RxErrc> : std::true_type {};
