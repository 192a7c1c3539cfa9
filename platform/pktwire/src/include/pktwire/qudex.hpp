#pragma once

// QUDEX cuts a sample (a record of fixed size) into numbered frames, one UDP datagram each, and puts it
// together again. A Receiver and a Sender belong to one thread and use a socket of their caller's. After
// construction nothing allocates and nothing throws.

#include <pktwire/detail/qudexLayout.hpp>
#include <pktwire/detail/sampleCollector.hpp>
#include <pktwire/iovsBuilder.hpp>
#include <pktwire/packet.hpp>
#include <pktwire/rxCounters.hpp>
#include <pktwire/udpSocket.hpp>

#include <gsl/span>

#include <functional>
#include <limits>
#include <system_error>
#include <utility>

namespace pktwire {

namespace lspx {
class Receiver;
class Sender;
}  // namespace lspx

namespace qudex {

// Why a sample was not delivered, in a category of its own ("qudex").
enum class RxErrc {
    sample_given_up = 1,  // frames are missing, and a newer sample has come
    sample_size = 2,      // the sample is not as large as the caller's buffer
    frame_count = 3,      // more frames than num_frames, or fewer than the protocol needs
    frame_places = 4,     // the frames don't tile the sample in the order of their numbers
};

const std::error_category& RxCategory() noexcept;
std::error_code make_error_code(RxErrc code) noexcept;

class Receiver {
public:
    using Packet = qudex::Packet;
    using PacketDeleter = qudex::PacketDeleter;

    struct Config {
        std::uint32_t topic = 0;
        std::uint16_t num_frames = 0;  // the most frames that a sample may have, not 0
        bool checksum_force_ignore = false;
        std::uint64_t buf_packets =
            0;  // packets kept for later samples; 0: as many as num_frames, at most 16
    };
    static constexpr std::uint64_t MAX_BUF_PACKETS = 4096;

    // The packets at both ends of a sample. The second is null if the sample has one frame.
    struct SampleHandle {
        PacketPtr first;
        PacketPtr second;
    };

    // Uses the socket, which must live as long. The memory resource may be null for the default one.
    // Throws std::runtime_error on a configuration that can't work.
    Receiver(const Config& config, RxSocket& socket, std::pmr::memory_resource* memory);

    // Waits up to `timeout` for one sample of exactly the buffer's size. Error std::errc::timed_out: no whole
    // sample yet; frames that are in stay in, so that the next call with the same buffer goes on (with a
    // timeout of 0 this is polling). Error of RxErrc: a sample was lost; the next call goes on with the
    // sample after it. The buffer's content counts only after a success; until then the kernel writes to it
    // during calls. At most four handles may be held at a time.
    std::pair<std::error_code, std::optional<SampleHandle>> ReceiveSample(
        gsl::span<std::byte> buffer, std::chrono::nanoseconds timeout) noexcept;

    // Begins as if just made, with zero counters: the sample in work is forgotten, and packets that were kept
    // or wait in the socket are dropped.
    void Restart() noexcept;

    RxCounters GetCounters() const noexcept { return m_source.ReadCounters(); }

private:
    friend class lspx::Receiver;

    Config m_config;
    detail::PacketSource m_source;
    detail::SampleCollector m_collector;
    detail::BufferLayout m_layout;
};

class Sender {
public:
    struct Config {
        std::uint32_t topic = 0;
        std::uint16_t component_id = 0;
        std::uint16_t num_frames = 0;  // not 0
        bool checksum_enable = false;
        std::function<time_point()>
            clock;                      // dates the samples sent without a time stamp; empty: none is sent
        std::uint64_t sample_size = 0;  // bytes of every sample, carried in the header; 0: not told
        std::uint64_t niovs = 0;        // the most pieces that one packet is gathered from; 0: 16
    };
    static constexpr std::uint64_t MAX_SAMPLE_SIZE = std::numeric_limits<std::uint32_t>::max();
    static constexpr std::uint64_t MAX_NIOVS = 1023;  // and one for the header: the system's limit

    Sender(const Config& config, TxSocket& socket, std::pmr::memory_resource* memory);

    // The ID of the next sample, which begins with its first frame. Without a call it is one up from the
    // sample before.
    void SetSampleId(unsigned id) noexcept;

    // Cuts the sample into num_frames frames of equal size, the last ones smaller. Errors: what the socket
    // says (ECONNREFUSED only after all frames are out), std::errc::message_size if the sample is not of
    // sample_size bytes or too large.
    std::error_code SendSample(gsl::span<const std::byte> sample, std::optional<time_point> timestamp,
                               std::optional<std::uint16_t> extra) noexcept;

    // Sends the next frame of the sample, gathered from the builder's pieces; one entry must be free ahead of
    // them (else std::errc::invalid_argument). After num_frames of them the sample is over. A failed frame is
    // not repeated.
    std::error_code SendPacket(detail::IovsBuilder<const std::byte>&& pieces,
                               std::optional<time_point> timestamp,
                               std::optional<std::uint16_t> extra) noexcept;

    std::uint16_t NumFrames() const noexcept { return m_config.num_frames; }

private:
    friend class lspx::Sender;

    // A frame's headers, up to the body.
    struct Head {
        wire::QudexHeader qudex;
        std::array<std::byte, sizeof(wire::LspxHeader) + wire::MAX_PADDING> upper;
    };
    static constexpr std::size_t BATCH = 32;

    void BeginSample(std::uint32_t size) noexcept;
    // One more frame of the sample: what stands between the QUDEX header and the body, and the body in place.
    void Queue(std::span<const std::byte> upper, std::span<const std::byte> body, time_point timestamp,
               std::optional<std::uint16_t> extra) noexcept;
    void Flush() noexcept;
    // Sends what is queued, and gives the worst error of the sample.
    std::error_code EndSample() noexcept;
    wire::QudexHeader NextHeader(std::size_t payload_size, time_point timestamp,
                                 std::optional<std::uint16_t> extra) noexcept;
    time_point Timestamp(std::optional<time_point> timestamp) const;

    Config m_config;
    TxSocket& m_socket;
    std::uint32_t m_sample_id = 0;
    std::uint16_t m_next_frame = 1;
    std::uint32_t m_place = 0;        // of the next frame in the sample
    std::uint32_t m_sample_size = 0;  // as told in the headers
    std::size_t m_queued = 0;
    std::error_code m_error;  // of the sample so far
    std::pmr::vector<Head> m_heads;
    std::pmr::vector<iovec> m_iovs;
    std::pmr::vector<mmsghdr> m_messages;
    std::pmr::vector<iovec> m_gather;  // SendPacket's pieces
};

}  // namespace qudex
}  // namespace pktwire

template <>
struct std::is_error_code_enum<pktwire::qudex::RxErrc> : std::true_type {};
