// An LSPX receiver against datagrams of any content, order and size, by whole samples and packet by packet:
// each byte that it delivers is one of that sample and lies where it belongs.

#include "datagramFeed.hpp"

using namespace pktwire;

namespace {

constexpr std::chrono::nanoseconds NOW{0};
// Where the parts of a sample begin in its content, far from each other; the payload begins at 0.
constexpr std::size_t LEADER_INFO = std::size_t{1} << 40U;
constexpr std::size_t TRAILER_INFO = std::size_t{1} << 41U;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    test::FuzzInput input{{data, size}};
    qudex::Receiver::Config qudex_config;
    qudex_config.topic = 7;
    qudex_config.num_frames = static_cast<std::uint16_t>(input.Byte() % 20 + 2);
    qudex_config.buf_packets = input.Byte() % 5;
    test::FakeRxSocket socket{input.Byte() % 12U};
    lspx::Receiver::Config config;
    config.endianness = lspx::LITTLE_ENDIAN_UNITS;
    config.leader_extended_info_size = config.trailer_extended_info_size = 4;
    config.leading_padding_size = input.Byte() % 4;
    config.data_unit_size = static_cast<std::uint8_t>(input.Byte() % 4 + 1);
    const std::size_t unit_size = config.data_unit_size;
    auto memory = test::ReceiverMemory();
    lspx::Receiver receiver{
        config,
        {new qudex::Receiver{qudex_config, socket, &memory}, std::default_delete<qudex::Receiver>{}},
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
    const auto place_of = [&](const test::Bytes& datagram) -> std::size_t {
        const auto header = test::HeaderAt<wire::QudexHeader>(datagram, 0);
        if (header.frame_number == 1) return LEADER_INFO;
        if (header.frame_number == header.num_frames) return TRAILER_INFO;
        return (test::HeaderAt<wire::LspxHeader>(datagram, sizeof(header)).first_unit - 1U) * unit_size;
    };
    const auto feed_sample = [&] {
        const auto sender = test::FuzzedSender(input, 3, qudex_config.num_frames);
        const auto units = static_cast<std::uint32_t>(payload.size() / unit_size + input.Byte() % 2U);
        if (units == 0) return;
        const std::uint8_t id = input.Byte();
        const auto datagrams =
            test::Cut(sender,
                      {.endianness = config.endianness,
                       .leader_extended_info_size = 4,
                       .trailer_extended_info_size = 4,
                       .frame_size = units,
                       .leading_padding_size = config.leading_padding_size},
                      id, {test::Bytes(4), test::Bytes(units * unit_size), test::Bytes(4)}, {});
        test::Feed(socket, datagrams, input,
                   sizeof(wire::QudexHeader) + sizeof(wire::LspxHeader) + config.leading_padding_size,
                   place_of);
    };
    while (!input.IsEmpty()) {
        const std::uint8_t step = input.Byte();
        for (int i = 0; i < step % 4; ++i) feed_sample();
        if (step == 0x7F) receiver.Restart();
        if (step < 0x80) {
            auto [error, sample] = receiver.ReceiveSample(leader_info, payload, trailer_info, NOW);
            test::Require(!error == (sample.leader && sample.trailer));
            if (error) continue;
            const qudex::Packet& leader = sample.leader->Qudex();
            test::RequireContent(gsl::span{payload}.first(sample.leader->NumUnits() * unit_size), leader, 0);
            test::RequireContent(leader_info, leader, LEADER_INFO);
            test::RequireContent(gsl::span{trailer_info}.first(4), leader, TRAILER_INFO);
        } else if (step < 0xA0) {
            const auto leader = receiver.ReceiveLeaderPacket(pieces(leader_info, step), NOW);
            if (!leader.error) test::RequireContent(leader_info, leader.packet->Qudex(), LEADER_INFO);
        } else if (step < 0xE0) {
            const auto packet = receiver.ReceivePayloadPacket(pieces(payload, input.Word()), NOW);
            if (packet.error) continue;
            const qudex::Packet& frame = packet.packet->Qudex();
            const std::uint32_t units = packet.packet->NumUnits();
            const std::size_t share = lspx::detail::UnitsPerPacket(units, frame.NumFrames());
            const std::size_t ahead = std::min<std::size_t>(share * (frame.FrameNumber() - 2U), units);
            const std::size_t body_size = std::min(share, units - ahead) * unit_size;
            test::Require(packet.packet->FirstUnit() == ahead + 1);
            test::RequireContent(gsl::span{payload}.first(body_size), frame, ahead * unit_size);
        } else {
            const auto trailer = receiver.ReceiveTrailerPacket(pieces(trailer_info, step), NOW);
            if (!trailer.error)
                test::RequireContent(gsl::span{trailer_info}.first(4), trailer.packet->Qudex(), TRAILER_INFO);
        }
    }
    return 0;
}
