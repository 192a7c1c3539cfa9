// An LSPX receiver against datagrams of any content, order and size, by whole samples and packet by packet.

#include "datagramFeed.hpp"

#include <pktwire/lspx.hpp>

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
    while (!input.IsEmpty()) {
        const std::uint8_t step = input.Byte();
        for (int i = 0; i < step % 8; ++i) socket.datagrams.push_back(Datagram(input, config));
        if (step < 0x80) {
            auto [error, sample] = receiver.ReceiveSample(leader_info, payload, trailer_info, NOW);
            test::Require(!error == (sample.leader && sample.trailer));
            test::Require(error ||
                          std::size_t{sample.leader->NumUnits()} * config.data_unit_size <= payload.size());
        } else if (step < 0xA0) {
            receiver.ReceiveLeaderPacket(pieces(leader_info, step), NOW);
        } else if (step < 0xE0) {
            receiver.ReceivePayloadPacket(pieces(payload, input.Word()), NOW);
        } else {
            receiver.ReceiveTrailerPacket(pieces(trailer_info, step), NOW);
        }
    }
    return 0;
}
