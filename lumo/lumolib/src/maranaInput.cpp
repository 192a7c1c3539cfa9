#include <lumolib/maranaInput.hpp>

#include <lumolib/frameDump.hpp>
#include <pktwire/iovsBuilder.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/image_processing/noiseRemovalFactory.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <system_error>
#include <type_traits>

namespace vosk::lumo {

using common::LogWarn;
using image_processing::MaranaNoiseRemoval;
using oru::configng::PliConfigInstanceNode;

namespace {

using Receiver = pktwire::lspx::Receiver;
using Sample = std::pair<std::error_code, Receiver::Sample>;
using Bytes = gsl::span<std::byte>;

constexpr std::size_t PIXELS = MaranaNoiseRemoval::WIDTH * MaranaNoiseRemoval::HEIGHT;
constexpr std::array CAMERAS{defs::Camera::IMG_PDS};

pktwire::UdpRxSocket::Config UdpDefaults() {
    pktwire::UdpRxSocket::Config config{};
    config.rxbuf_size = 3 * PIXELS * sizeof(std::uint16_t);
    return config;
}

pktwire::qudex::Receiver::Config QudexDefaults() {
    pktwire::qudex::Receiver::Config config{};
    config.num_frames = 943;
    return config;
}

Receiver::Config LspxDefaults() {
    Receiver::Config config{};
    config.endianness = pktwire::lspx::LITTLE_ENDIAN_UNITS;
    config.leader_extended_info_size = sizeof(defs::MaranaLeaderInfo);
    config.data_unit_size = sizeof(std::uint16_t);
    config.buf_samples = 2;
    return config;
}

std::unique_ptr<ComputeSlopesSubtask::NoiseRemoval> MakeNoiseRemoval(const PliConfigInstanceNode& node,
                                                                     const std::string& key) {
    return image_processing::factory::CreateMaranaNoiseRemoval(node, key);
}

// Receives one sample packet by packet.
class SampleReader {
public:
    SampleReader(Receiver& receiver, std::chrono::nanoseconds timeout)
        : m_receiver{receiver}, m_timeout{timeout} {}

    Sample Read(Bytes leader_info, Bytes payload) {
        auto leader =
            Repeat([&](auto left) { return m_receiver.ReceiveLeaderPacket(Into(leader_info), left); },
                   std::make_error_code(std::errc::message_size));
        if (leader.error || !leader.packet) return {leader.error, Receiver::Sample{}};
        m_has_begun = true;
        m_id = leader.packet->SampleId();
        // A frame that began late in the wait would else be lost at its end, without a trace.
        m_deadline = std::chrono::steady_clock::now() + m_timeout;
        const std::error_code error = ReadPayload(*leader.packet, payload);
        if (error || m_is_broken) return {error, Receiver::Sample{}};
        auto trailer = Repeat([&](auto left) { return m_receiver.ReceiveTrailerPacket(Into({}), left); });
        if (trailer.error || !IsOfSample(trailer.packet)) return {trailer.error, Receiver::Sample{}};
        return {std::error_code{}, Receiver::Sample{std::move(leader.packet), std::move(trailer.packet)}};
    }

    // Whether a leader came, so that a time-out ended a sample.
    bool HasBegun() const { return m_has_begun; }

private:
    // The payload packets have equal shares of the data units, rounded up.
    std::error_code ReadPayload(const Receiver::LeaderPacket& leader, Bytes payload) {
        constexpr std::size_t UNIT = sizeof(std::uint16_t);
        const std::size_t total = leader.NumUnits();
        if (total * UNIT > payload.size()) return pktwire::lspx::RxErrc::buffer_too_small;
        const std::size_t packets = leader.NumFrames() > 2 ? leader.NumFrames() - 2U : 0;
        const std::size_t share = packets == 0 ? 0 : (total + packets - 1) / packets;
        Bytes left = payload.first(total * UNIT);
        std::size_t highest = 1;
        for (std::size_t i = 0; i < packets; ++i) {
            const Bytes place = left.first(std::min(left.size(), share * UNIT));
            const auto packet =
                Repeat([&](auto time) { return m_receiver.ReceivePayloadPacket(Into(place), time); });
            m_is_broken = !IsOfSample(packet.packet);
            if (packet.error || m_is_broken) return packet.error;
            highest = std::max(highest, packet.packet->FirstUnit() + place.size() / UNIT);
            left = left.subspan(place.size());
        }
        if (!left.empty()) return pktwire::lspx::RxErrc::payload_missing;
        if (highest - 1 != total) return pktwire::lspx::RxErrc::unit_count;
        return {};
    }

    // Asks again while a packet of another kind was there, and after that other error.
    template <class Receive>
    std::invoke_result_t<Receive, std::chrono::nanoseconds> Repeat(
        const Receive& receive, std::error_code other = pktwire::lspx::RxErrc::other_packet) const {
        for (;;) {
            const std::chrono::nanoseconds left = m_deadline - std::chrono::steady_clock::now();
            auto result = receive(std::max(left, left.zero()));
            if (result.error != pktwire::lspx::RxErrc::other_packet && result.error != other) return result;
            // A flood of such packets must not hold the thread.
            result.error = std::make_error_code(std::errc::timed_out);
            if (left <= left.zero()) return result;
        }
    }

    pktwire::detail::IovsBuilder<std::byte> Into(Bytes place) {
        m_pieces = {};
        auto builder =
            pktwire::MakeRxIovsBuilder<pktwire::lspx::detail::RxTraits, 1>(gsl::span<Bytes, 6>{m_pieces});
        builder.Append(place);
        return builder;
    }

    template <class PacketPtr>
    bool IsOfSample(const PacketPtr& packet) const {
        return packet && packet->SampleId() == m_id;
    }

    Receiver& m_receiver;
    const std::chrono::nanoseconds m_timeout;
    std::chrono::steady_clock::time_point m_deadline = std::chrono::steady_clock::now() + m_timeout;
    std::array<Bytes, 6> m_pieces{};
    bool m_has_begun = false;
    std::uint32_t m_id = 0;
    bool m_is_broken = false;  // a packet is missing, or one of another sample was there
};

}  // namespace

ImgMaranaInput::ImgMaranaInput(const PliConfigInstanceNode& node)
    : ImgCameraInput{"Marana_" + GetParam<std::string>(node, "camera_id"),
                     node,
                     UdpDefaults(),
                     QudexDefaults(),
                     LspxDefaults(),
                     MaranaNoiseRemoval::WIDTH,
                     MaranaNoiseRemoval::HEIGHT} {
    RequireForm(node, sizeof(std::uint16_t), sizeof(m_leader_info));
    if (m_timeout == m_timeout.zero())
        WarnOf(node, "timeout", fmt::format("Thread {}, can receive no frame without a timeout", m_name));
    SetUp(node, {MaranaNoiseRemoval::WIDTH, MaranaNoiseRemoval::HEIGHT, MakeNoiseRemoval}, CAMERAS);
}

ImgMaranaInput::Received ImgMaranaInput::Receive() {
    CameraFrame& frame = IdleFrame();
    SampleReader reader{*m_lspx_receiver, m_timeout};
    Received received = reader.Read(gsl::as_writable_bytes(gsl::span{&m_leader_info, 1}),
                                    gsl::as_writable_bytes(gsl::span{frame.first}));
    if (received.first == std::errc::timed_out && reader.HasBegun()) {
        ++m_cut_short;
        m_account.RecordLosses(*m_lspx_receiver, m_cut_short);
    }
    if (received.first || !received.second.leader || !received.second.trailer) return received;
    if (!IsUsable(*received.second.leader))
        return {std::make_error_code(std::errc::invalid_argument), pktwire::lspx::Receiver::Sample{}};
    // All four are at most DETECTOR_SIZE.
    const auto narrow = [](std::uint32_t value) { return static_cast<std::uint16_t>(value); };
    frame.second.emplace(narrow(m_leader_info.x_offset), narrow(m_leader_info.y_offset),
                         narrow(m_leader_info.width), narrow(m_leader_info.height));
    return received;
}

bool ImgMaranaInput::IsUsable(const Leader& leader) const {
    const std::uint32_t data_type = m_leader_info.data_type;
    if (data_type != defs::MaranaLeaderInfo::DATA_TYPE) {
        LogWarn("{}: Receveived MARANA frame with incorrect datatype: ({}), ignoring", m_name, data_type);
        return false;
    }
    const std::uint64_t width = std::uint32_t{m_leader_info.width};
    const std::uint64_t height = std::uint32_t{m_leader_info.height};
    const std::uint64_t x = std::uint32_t{m_leader_info.x_offset};
    const std::uint64_t y = std::uint32_t{m_leader_info.y_offset};
    constexpr std::uint64_t LIMIT = defs::MaranaLeaderInfo::DETECTOR_SIZE;
    if (x + width > LIMIT || y + height > LIMIT) {
        LogWarn("{}: Receveived MARANA frame with incorrect window offsets: ({}..{}),({}..{}), ignoring",
                m_name, x, x + width, y, y + height);
        return false;
    }
    return IsWhole(leader, width * height);
}

// The first frame of the process that is completed by any of these cameras.
void ImgMaranaInput::DiagnoseFrame() {
    static std::atomic_flag is_done;
    if (!is_done.test_and_set())
        DumpMaranaFrameToFits(FrameInWork().first, m_camera, LabelInWork().sample_id);
}

}  // namespace vosk::lumo
