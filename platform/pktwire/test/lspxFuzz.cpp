// An LSPX receiver against datagrams of any content, order and size, by whole samples and packet by packet:
// what it delivers was fed for that sample and lies where it belongs.

#include "datagramFeed.hpp"

#include <array>

using namespace pktwire;

namespace {

constexpr std::chrono::nanoseconds NOW{0};

// A datagram whose LSPX header is mostly right.
test::Bytes Datagram(test::FuzzInput& input, const lspx::Receiver::Config& config) {
    test::Bytes datagram = input.Datagram(7, sizeof(wire::LspxHeader) + config.leading_padding_size);
    constexpr std::size_t start = sizeof(wire::QudexHeader);
    if (datagram.size() < start + sizeof(wire::LspxHeader) || input.Byte() % 8 == 0) return datagram;
    const auto number = std::to_integer<unsigned>(datagram[21]);
    const auto count = std::to_integer<unsigned>(datagram[23]);
    const unsigned kind = number == 1 ? 1 : number == count ? 3 : 2;
    const std::array<unsigned, 12> fields{
        1, kind, 8, config.data_unit_size, config.leading_padding_size, input.Byte(), kind == 2 ? 0U : 4U, 0,
        0, 0,    0, input.Byte() % 64U};
    for (std::size_t i = 0; i < fields.size(); ++i) datagram[start + i] = static_cast<std::byte>(fields[i]);
    return datagram;
}

std::vector<test::Bytes> TrueSample(test::FuzzInput& input, const lspx::Receiver::Config& config,
                                    std::uint16_t max_frames, std::size_t room) {
    qudex::Sender::Config qudex_config;
    qudex_config.topic = 7;
    qudex_config.component_id = input.Byte() % 2U;
    qudex_config.num_frames = static_cast<std::uint16_t>(input.Byte() % max_frames + 3U);
    const auto units = std::max<std::uint32_t>(
        static_cast<std::uint32_t>(room / config.data_unit_size + input.Byte() % 2U), 1U);
    const std::uint8_t id = input.Byte();
    return test::Cut(qudex_config,
                     {.endianness = config.endianness,
                      .leader_extended_info_size = config.leader_extended_info_size,
                      .trailer_extended_info_size = config.trailer_extended_info_size,
                      .frame_size = units,
                      .leading_padding_size = config.leading_padding_size},
                     id,
                     {test::Counting(config.leader_extended_info_size, id),
                      test::Counting(std::size_t{units} * config.data_unit_size, id),
                      test::Counting(config.trailer_extended_info_size, id)},
                     {});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    test::FuzzInput input{{data, size}};
    qudex::Receiver::Config qudex_config;
    qudex_config.topic = 7;
    qudex_config.num_frames = static_cast<std::uint16_t>(input.Byte() % 20 + 2);
    qudex_config.buf_packets = input.Byte() % 5;
    const std::size_t batch = input.Byte() % 12U;
    test::FakeRxSocket socket{batch};
    lspx::Receiver::Config config;
    config.endianness = lspx::LITTLE_ENDIAN_UNITS;
    config.leader_extended_info_size = config.trailer_extended_info_size = 4;
    config.leading_padding_size = input.Byte() % 4;
    config.data_unit_size = static_cast<std::uint8_t>(input.Byte() % 4 + 1);
    test::Feed feed{socket};
    test::ReceiverMemory memory;
    lspx::Receiver receiver{
        config,
        {new qudex::Receiver{qudex_config, socket, memory.Get()}, std::default_delete<qudex::Receiver>{}},
        nullptr};
    test::Bytes leader_info(4);
    test::Bytes trailer_info(input.Byte() % 5);
    test::Bytes payload(input.Word() % 700);
    std::array<gsl::span<std::byte>, 6> entries{};
    const auto pieces = [&entries](test::Bytes& bytes, std::size_t room) {
        auto builder = MakeRxIovsBuilder<lspx::detail::RxTraits, 1, 6>(entries);
        builder.Append(gsl::span<std::byte>{bytes}.first(std::min(room, bytes.size())));
        return builder;
    };
    const std::size_t head_size =
        sizeof(wire::QudexHeader) + sizeof(wire::LspxHeader) + config.leading_padding_size;
    const auto place_of = [&](const test::Bytes& datagram) {
        const auto header = test::HeaderAt<wire::LspxHeader>(datagram, sizeof(wire::QudexHeader));
        return (std::size_t{header.first_unit} - 1) * config.data_unit_size;
    };
    const auto holds_body = [&](gsl::span<const std::byte> body, const qudex::Packet& packet) {
        const unsigned frame = packet.FrameNumber();
        return feed.Holds(body, packet, frame, frame, head_size,
                          [](const test::Bytes&) { return std::size_t{0}; });
    };
    while (!input.IsEmpty()) {
        const std::uint8_t step = input.Byte();
        if ((step & 8U) != 0) {
            feed.Put(TrueSample(input, config, qudex_config.num_frames, payload.size()), input);
        }
        for (int i = 0; i < step % 8; ++i) feed.Put(Datagram(input, config));
        if (step == 0x7F) receiver.Restart();
        if (step < 0x80) {
            auto [error, sample] = receiver.ReceiveSample(leader_info, payload, trailer_info, NOW);
            test::Require(!error == (sample.leader && sample.trailer));
            test::Require(error ||
                          std::size_t{sample.leader->NumUnits()} * config.data_unit_size <= payload.size());
            if (error) continue;
            const auto units = gsl::span<const std::byte>{payload}.first(
                std::size_t{sample.leader->NumUnits()} * config.data_unit_size);
            const qudex::Packet& leader = sample.leader->Qudex();
            test::Require(feed.Holds(units, leader, 2, leader.NumFrames() - 1U, head_size, place_of));
            test::Require(holds_body(leader_info, leader) &&
                          holds_body(trailer_info, sample.trailer->Qudex()));
        } else if (step < 0xA0) {
            const auto leader = receiver.ReceiveLeaderPacket(pieces(leader_info, step), NOW);
            test::Require(leader.error || holds_body(leader_info, leader.packet->Qudex()));
        } else if (step < 0xE0) {
            const auto packet = receiver.ReceivePayloadPacket(pieces(payload, input.Word()), NOW);
            if (packet.error) continue;
            const qudex::Packet& frame = packet.packet->Qudex();
            const std::uint32_t units = packet.packet->NumUnits();
            const std::size_t share = lspx::detail::UnitsPerPacket(units, frame.NumFrames());
            const std::size_t ahead = std::min<std::size_t>(share * (frame.FrameNumber() - 2U), units);
            const std::size_t body_size = std::min(share, units - ahead) * config.data_unit_size;
            test::Require(packet.packet->FirstUnit() == ahead + 1);
            test::Require(holds_body(gsl::span<const std::byte>{payload}.first(body_size), frame));
        } else {
            const auto trailer = receiver.ReceiveTrailerPacket(pieces(trailer_info, step), NOW);
            test::Require(trailer.error || holds_body(trailer_info, trailer.packet->Qudex()));
        }
    }
    return 0;
}
