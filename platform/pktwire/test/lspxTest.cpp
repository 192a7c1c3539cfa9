#include "guardedBuffer.hpp"

#include <pktwire/lspx.hpp>

#include <fstream>
#include <vosk/test/support.hpp>

using namespace pktwire;
using namespace pktwire::test;
using namespace std::chrono_literals;
using lspx::RxErrc;
using testing::ElementsAre;

namespace {

constexpr time_point TIME{std::chrono::nanoseconds{0x1112131415161718}};

struct Stream {
    std::uint16_t num_frames = 5;
    std::uint32_t units = 10;
    std::uint8_t unit_size = 2;
    std::uint8_t leader_info = 4;
    std::uint8_t trailer_info = 0;
    std::uint8_t padding = 0;
    std::uint8_t endianness = lspx::LITTLE_ENDIAN_UNITS;

    std::size_t PayloadSize() const { return std::size_t{units} * unit_size; }
};

std::vector<Bytes> Cut(const Stream& stream, unsigned id, const Bytes& payload, const Bytes& leader_info,
                       lspx::Status status = lspx::Status::good, time_point time = TIME) {
    qudex::Sender::Config config;
    config.topic = 7;
    config.num_frames = stream.num_frames;
    const auto padding = FromHex("d1d2");
    return test::Cut(config,
                     {lspx::OTHER_SOURCE, stream.endianness, stream.leader_info, stream.trailer_info,
                      stream.units, stream.padding, padding},
                     id, {leader_info, payload, Bytes(stream.trailer_info)}, time, status);
}

using Pieces = std::array<gsl::span<std::byte>, 6>;

auto Into(Pieces& entries, gsl::span<std::byte> piece) {
    auto builder = MakeRxIovsBuilder<lspx::detail::RxTraits, 1, 6>(entries);
    builder.Append(piece);
    return builder;
}

struct Bench {
    explicit Bench(const Stream& the_stream)
        : stream{the_stream},
          receiver{{stream.endianness, stream.leader_info, stream.trailer_info, stream.padding,
                    stream.unit_size, 2},
                   QudexReceiver(),
                   nullptr},
          leader_info(stream.leader_info),
          buffer{stream.PayloadSize()},
          trailer_info(stream.trailer_info) {}

    lspx::Receiver::QudexReceiver QudexReceiver() {
        qudex::Receiver::Config config;
        config.topic = 7;
        config.num_frames = stream.num_frames;
        return {new qudex::Receiver{config, socket, nullptr}, std::default_delete<qudex::Receiver>{}};
    }
    Bytes Content(std::size_t size) { return buffer.Content(size); }
    RxCounters Counters() const { return receiver.GetCounters(); }
    std::pair<std::error_code, lspx::Receiver::Sample> ReceiveSample() {
        return receiver.ReceiveSample(leader_info, buffer.Get(), trailer_info, 1h);
    }
    Stream stream;
    FakeRxSocket socket;
    lspx::Receiver receiver;
    Bytes leader_info;
    GuardedBuffer buffer;
    Bytes trailer_info;
};

// The reception that a caller writes who places the payload himself. Gives the error, and whether it was
// whole.
std::pair<std::error_code, bool> ReceivePacketByPacket(Bench& bench) {
    Pieces entries{};
    const auto pieces = [&entries](gsl::span<std::byte> piece) { return Into(entries, piece); };
    auto leader = bench.receiver.ReceiveLeaderPacket(pieces(bench.leader_info), 1h);
    while (leader.error == RxErrc::other_packet || leader.error == std::errc::message_size) {
        leader = bench.receiver.ReceiveLeaderPacket(pieces(bench.leader_info), 1h);
    }
    if (leader.error) return {leader.error, false};
    const std::uint32_t total = leader.packet->NumUnits();
    const std::uint16_t frames = leader.packet->NumFrames();
    const std::uint32_t per_packet = frames > 2 ? (total + frames - 3) / (frames - 2U) : 0;
    auto rest = bench.buffer.Get().first(std::size_t{total} * bench.stream.unit_size);
    std::uint32_t highest = 1;
    for (std::uint16_t index = 2; index < frames; ++index) {
        const auto chunk =
            rest.first(std::min<std::size_t>(rest.size(), std::size_t{per_packet} * bench.stream.unit_size));
        auto payload = bench.receiver.ReceivePayloadPacket(pieces(chunk), 1h);
        while (payload.error == RxErrc::other_packet)
            payload = bench.receiver.ReceivePayloadPacket(pieces(chunk), 1h);
        if (payload.error) return {payload.error, false};
        EXPECT_EQ(payload.packet->SampleId(), leader.packet->SampleId());
        highest = std::max(highest, payload.packet->FirstUnit() +
                                        static_cast<std::uint32_t>(chunk.size() / bench.stream.unit_size));
        rest = rest.subspan(chunk.size());
    }
    EXPECT_TRUE(rest.empty());
    EXPECT_EQ(highest - 1, total);
    auto trailer = bench.receiver.ReceiveTrailerPacket(pieces(bench.trailer_info), 1h);
    while (trailer.error == RxErrc::other_packet) {
        trailer = bench.receiver.ReceiveTrailerPacket(pieces(bench.trailer_info), 1h);
    }
    return {trailer.error, trailer.packet && trailer.packet->SampleId() == leader.packet->SampleId()};
}

TEST(LspxSender, WritesLeaderPayloadAndTrailerByteByByte) {
    const Stream stream{
        .num_frames = 4, .units = 3, .unit_size = 2, .leader_info = 1, .trailer_info = 2, .padding = 3};
    const std::string qudex = "51554458 01 00 0000 00000009 1112131415161718 ";
    EXPECT_THAT(Cut(stream, 9, FromHex("a1a2 b1b2 c1c2"), FromHex("ee"), lspx::Status{6}),
                ElementsAre(FromHex(qudex + "0001 0004 00000007 00000000 00000014 0000 0000 00000000 00000000"
                                            "01 01 18 02 03 06 01 00 00000003 00000000 d1d2d1 ee"),
                            FromHex(qudex + "0002 0004 00000007 00000014 00000017 0000 0000 00000000 00000000"
                                            "01 02 18 02 03 06 00 00 00000003 00000001 d1d2d1 a1a2 b1b2"),
                            FromHex(qudex + "0003 0004 00000007 0000002b 00000015 0000 0000 00000000 00000000"
                                            "01 02 18 02 03 06 00 00 00000003 00000003 d1d2d1 c1c2"),
                            FromHex(qudex + "0004 0004 00000007 00000040 00000015 0000 0000 00000000 00000000"
                                            "01 03 18 02 03 06 02 00 00000003 00000000 d1d2d1 0000")));
}

// The code blocks of the page, two lines a datagram: what peers in other languages are written from.
std::vector<Bytes> ExampleOfWireFormatPage() {
    std::ifstream page{VOSK_WIRE_FORMAT_PAGE};
    std::vector<Bytes> datagrams;
    std::string first;
    bool in_block = false;
    for (std::string line; std::getline(page, line);) {
        if (line == "```") {
            in_block = !in_block;
        } else if (in_block && first.empty()) {
            first = line;
        } else if (in_block) {
            datagrams.push_back(FromHex(std::exchange(first, {}) + line));
        }
    }
    return datagrams;
}

TEST(LspxSender, SendsTheExampleOfTheWireFormatPage) {
    const Stream stream{.num_frames = 4, .units = 3, .leader_info = 1};
    auto datagrams = Cut(stream, 9, FromHex("a1a2 b1b2 c1c2"), FromHex("ee"));
    for (Bytes& datagram : datagrams) {
        const Bytes time = FromHex("0000000000000001");
        std::copy(time.begin(), time.end(), datagram.begin() + 12);
    }
    EXPECT_EQ(ExampleOfWireFormatPage(), datagrams);
}

TEST(LspxSender, RefusesSpansOfOtherSizesThanConfigured) {
    FakeTxSocket socket;
    qudex::Sender::Config config;
    config.num_frames = 3;
    qudex::Sender qudex_sender{config, socket, nullptr};
    lspx::Sender sender{{.leader_extended_info_size = 4, .frame_size = 3}, qudex_sender};
    EXPECT_EQ(sender.SendSample(Bytes(3), Bytes(12), {}, TIME, {}, {}), std::errc::invalid_argument);
    EXPECT_EQ(sender.SendSample(Bytes(4), Bytes(13), {}, TIME, {}, {}), std::errc::invalid_argument);
    EXPECT_EQ(sender.SendSample(Bytes(4), {}, {}, TIME, {}, {}), std::errc::invalid_argument);
    EXPECT_TRUE(socket.Take().empty());
    EXPECT_FALSE(sender.SendSample(Bytes(4), Bytes(12), {}, TIME, {}, {}));
    config.num_frames = 2;
    qudex::Sender too_few{config, socket, nullptr};
    EXPECT_THROW((lspx::Sender{{.frame_size = 3}, too_few}), std::runtime_error);
}

std::error_code Receive(Bench& bench, bool packet_by_packet) {
    return packet_by_packet ? ReceivePacketByPacket(bench).first : bench.ReceiveSample().first;
}

TEST(LspxReceiver, ReceivesCameraFramesWhereTheyBelongInBothManners) {
    const std::array<Stream, 4> streams{
        Stream{.num_frames = 206, .units = 783360, .leader_info = 8},
        Stream{.num_frames = 943, .units = 4194304, .leader_info = 28},
        Stream{.num_frames = 8, .units = 7, .trailer_info = 3, .padding = 5},
        Stream{.num_frames = 3, .units = 3, .unit_size = 4, .leader_info = 33}};
    for (const Stream& stream : streams) {
        const Bytes payload = Counting(stream.PayloadSize());
        const Bytes info = Counting(stream.leader_info, 50);
        Bench bench{stream};
        for (unsigned id = 1; id <= 4; ++id)
            bench.socket.Put(Cut(stream, id, payload, info, lspx::Status{3}));
        for (unsigned id = 1; id <= 2; ++id) {
            auto [error, sample] = bench.ReceiveSample();
            ASSERT_FALSE(error) << error.message();
            EXPECT_EQ(sample.leader->SampleId(), id);
            EXPECT_EQ(sample.leader->GetStatus(), lspx::Status{3});
            EXPECT_EQ(sample.leader->NumUnits(), stream.units);
            EXPECT_EQ(sample.leader->NumFrames(), stream.num_frames);
            EXPECT_EQ(sample.trailer->Timestamp(), TIME);
            EXPECT_TRUE(bench.Content(payload.size()) == payload && bench.leader_info == info);
        }
        for (unsigned id = 3; id <= 4; ++id) {
            std::fill(bench.buffer.Get().begin(), bench.buffer.Get().end(), std::byte{});
            EXPECT_EQ(ReceivePacketByPacket(bench), (std::pair{std::error_code{}, true}));
            EXPECT_TRUE(bench.Content(payload.size()) == payload && bench.leader_info == info);
        }
        const RxCounters& counters = bench.Counters();
        EXPECT_EQ(counters.copied + counters.ahead + counters.reordered, 0U);
    }
}

TEST(LspxReceiver, FollowsWindowsOfChangingSize) {
    const Stream full{.num_frames = 12, .units = 1000};
    const Stream window{.num_frames = 5, .units = 31};
    Bench bench{full};
    const std::array<Stream, 6> streams{full, window, window, full, window, full};
    for (unsigned id = 0; id < streams.size(); ++id) {
        bench.socket.Put(Cut(streams.at(id), id, Counting(streams.at(id).PayloadSize(), id), Bytes(4)));
    }
    for (unsigned id = 0; id < streams.size(); ++id) {
        auto [error, sample] = bench.ReceiveSample();
        ASSERT_FALSE(error) << id << error.message();
        EXPECT_EQ(sample.leader->NumUnits(), streams.at(id).units);
        EXPECT_EQ(bench.Content(streams.at(id).PayloadSize()), Counting(streams.at(id).PayloadSize(), id));
    }
}

TEST(LspxReceiver, EachFaultCostsOneSampleInBothManners) {
    const Stream stream{.num_frames = 30, .units = 300};
    const auto fault = [&](unsigned id, int kind) {
        auto datagrams = Cut(stream, id, Counting(600, id), Counting(4));
        if (kind == 0) datagrams.erase(datagrams.begin());
        if (kind == 1) datagrams.erase(datagrams.begin() + 14);
        if (kind == 2) datagrams.pop_back();
        if (kind == 3) datagrams.resize(15);
        if (kind == 4) datagrams[3][48] = std::byte{9};  // version
        if (kind == 5) {                                 // a short body
            datagrams[3].erase(datagrams[3].end() - 2, datagrams[3].end());
            datagrams[3][35] = static_cast<std::byte>(datagrams[3].size() - 48);
        }
        if (kind == 6) datagrams[3][63] ^= std::byte{1};  // another first unit
        if (kind == 7) datagrams[3][59] ^= std::byte{1};  // another count of units
        return datagrams;
    };
    for (int kind = 0; kind < 8; ++kind) {
        for (bool packet_by_packet : {false, true}) {
            Bench bench{stream};
            for (unsigned id = 1; id <= 5; ++id) {
                bench.socket.Put(id == 3 ? fault(id, kind) : Cut(stream, id, Counting(600, id), Counting(4)));
            }
            std::vector<unsigned> good;
            std::vector<std::error_code> errors;
            for (;;) {
                const std::error_code error = Receive(bench, packet_by_packet);
                if (error == std::errc::timed_out) break;
                if (error) {
                    errors.push_back(error);
                    continue;
                }
                for (unsigned id = 1; id <= 5; ++id) {
                    if (bench.Content(600) == Counting(600, id)) good.push_back(id);
                }
            }
            EXPECT_THAT(good, ElementsAre(1, 2, 4, 5))
                << "fault " << kind << ", by packet " << packet_by_packet;
            ASSERT_EQ(errors.size(), 1U);
            EXPECT_EQ(errors[0] == RxErrc::unit_count, kind > 4) << errors[0].message();
            EXPECT_EQ(bench.Counters().samples, 4U);
        }
    }
}

TEST(LspxReceiver, RepairsReorderingInBothManners) {
    const Stream stream{.num_frames = 30, .units = 300, .trailer_info = 1};
    const Bytes payload = Counting(600);
    auto datagrams = Cut(stream, 1, payload, Counting(4));
    std::rotate(datagrams.begin(), datagrams.begin() + 3, datagrams.begin() + 9);
    std::swap(datagrams[20], datagrams[29]);
    datagrams.push_back(datagrams[5]);
    std::rotate(datagrams.begin() + 15, datagrams.end() - 1, datagrams.end());
    for (bool packet_by_packet : {false, true}) {
        Bench bench{stream};
        bench.socket.Put(datagrams);
        EXPECT_FALSE(Receive(bench, packet_by_packet));
        EXPECT_EQ(bench.Content(600), payload);
        EXPECT_EQ(bench.Counters().duplicate, 1U);
        EXPECT_EQ(bench.Counters().reordered, 12U);
        EXPECT_EQ(bench.Counters().ahead, 0U);
    }
}

TEST(LspxReceiver, PacketByPacketASampleMayComeInAnyOrderBesideOthers) {
    const Stream stream{.num_frames = 30, .units = 300};
    Bench bench{stream};
    auto datagrams = Cut(stream, 1, Counting(600), Counting(4));
    std::reverse(datagrams.begin(), datagrams.end());
    datagrams.insert(datagrams.begin() + 20, Cut(stream, 2, Counting(600, 2), Counting(4))[0]);
    bench.socket.Put(datagrams);
    EXPECT_FALSE(Receive(bench, true));
    EXPECT_EQ(bench.Content(600), Counting(600));
}

TEST(LspxReceiver, RefusesWhatDoesNotFitItsSetUp) {
    const Stream ours;
    const auto answer = [&](const Stream& theirs) {
        std::error_code error;
        for (bool packet_by_packet : {false, true}) {
            if (error == RxErrc::buffer_too_small) break;  // a caller's matter, packet by packet
            Bench bench{ours};
            bench.socket.Put(Cut(theirs, 1, Bytes(theirs.PayloadSize()), Bytes(theirs.leader_info)));
            bench.socket.Put(Cut({.units = 3}, 2, Bytes(6), Bytes(4)));
            const std::error_code former = std::exchange(error, Receive(bench, packet_by_packet));
            EXPECT_TRUE(!packet_by_packet || error == former) << error.message();
            EXPECT_FALSE(Receive(bench, packet_by_packet));
            EXPECT_EQ(bench.Counters().refused, 1U);
        }
        return error;
    };
    EXPECT_EQ(answer({.endianness = lspx::BIG_ENDIAN_UNITS}), RxErrc::endianness);
    EXPECT_EQ(answer({.unit_size = 4}), RxErrc::data_unit_size);
    EXPECT_EQ(answer({.leader_info = 5}), RxErrc::extended_info_size);
    EXPECT_EQ(answer({.trailer_info = 5}), RxErrc::extended_info_size);
    EXPECT_EQ(answer({.padding = 1}), RxErrc::padding_size);
    EXPECT_EQ(answer({.units = 11}), RxErrc::buffer_too_small);
    EXPECT_EQ(answer({.num_frames = 6}), qudex::RxErrc::frame_count);
    EXPECT_EQ(lspx::make_error_code(RxErrc::buffer_too_small).value(), 13);
}

TEST(LspxReceiver, StraysBetweenThePacketsOfASampleCostNothingInBothManners) {
    const Stream stream;
    const auto good = Cut(stream, 1, Counting(20), Bytes(4));
    auto one_frame = Cut(stream, 100, Counting(20), Bytes(4))[0];
    one_frame[23] = std::byte{1};
    const std::vector<Bytes> misfits{
        one_frame, Cut({.num_frames = 6}, 101, Counting(20), Bytes(4))[2],
        Cut({.endianness = lspx::BIG_ENDIAN_UNITS}, 102, Counting(20), Bytes(4))[0]};
    auto of_another_sender = Cut(stream, 1, Counting(20, 99), Bytes(4));
    for (Bytes& datagram : of_another_sender) datagram[7] = std::byte{1};  // component
    for (bool packet_by_packet : {false, true}) {
        Bench bench{stream};
        for (std::size_t i = 0; i < good.size(); ++i) {
            bench.socket.Put({good[i]});
            if (i + 1 == good.size()) break;
            bench.socket.Put(misfits);
            bench.socket.Put({of_another_sender[i]});
        }
        EXPECT_FALSE(Receive(bench, packet_by_packet));
        EXPECT_EQ(bench.Content(20), Counting(20));
        EXPECT_EQ(bench.Counters().malformed, 4 * misfits.size());
        EXPECT_EQ(bench.Counters().foreign, 4U);
    }
}

TEST(LspxReceiver, PacketCallsForAnotherKindSayOtherPacket) {
    const Stream stream;
    Bench bench{stream};
    bench.socket.Put(Cut(stream, 1, Counting(20), Bytes(4)));
    bench.socket.Put(Cut(stream, 2, Counting(20), Bytes(4)));
    Pieces entries{};
    const auto pieces = [&entries](gsl::span<std::byte> piece) { return Into(entries, piece); };
    EXPECT_EQ(bench.receiver.ReceivePayloadPacket(pieces(bench.buffer.Get()), 1h).error,
              RxErrc::other_packet);
    EXPECT_EQ(ReceivePacketByPacket(bench).second, false);  // its leader is gone
    EXPECT_EQ(ReceivePacketByPacket(bench).second, true);
    EXPECT_EQ(ReceivePacketByPacket(bench).first, std::errc::timed_out);

    bench.socket.Put(Cut(stream, 3, Counting(20), Bytes(4)));
    ASSERT_FALSE(bench.receiver.ReceiveLeaderPacket(pieces(bench.leader_info), 1h).error);
    for (int payload_packets = 0; payload_packets < 3; ++payload_packets) {
        EXPECT_EQ(bench.receiver.ReceiveTrailerPacket(pieces({}), 1h).error, RxErrc::other_packet);
    }
    EXPECT_FALSE(bench.receiver.ReceiveTrailerPacket(pieces({}), 1h).error);

    bench.socket.Put(Cut(stream, 4, Counting(20), Bytes(4)));
    EXPECT_EQ(bench.receiver.ReceiveLeaderPacket(pieces(gsl::span<std::byte>{bench.leader_info}.first(3)), 1h)
                  .error,
              std::errc::message_size);
    EXPECT_EQ(bench.Counters().refused, 1U);
}

TEST(LspxReceiver, ASampleThatTheCallerLeavesIsCounted) {
    Bench bench{Stream{}};
    Pieces entries{};
    for (unsigned id = 1; id <= 2; ++id) bench.socket.Put(Cut(bench.stream, id, Counting(20), Bytes(4)));
    ASSERT_FALSE(bench.receiver.ReceiveLeaderPacket(Into(entries, bench.leader_info), 1h).error);
    EXPECT_FALSE(bench.ReceiveSample().first);
    EXPECT_EQ(bench.Counters().given_up, 1U);
    EXPECT_EQ(bench.Counters().samples, 1U);
}

TEST(LspxReceiver, FollowsASenderThatStartsAnewUnderTheIdOfALostSampleInBothManners) {
    const Stream stream;
    for (bool packet_by_packet : {false, true}) {
        Bench bench{stream};
        auto lost = Cut(stream, 1, Counting(20), Bytes(4));
        lost.erase(lost.begin());
        bench.socket.Put(lost);
        bench.socket.Put(Cut(stream, 2, Counting(20, 2), Bytes(4)));
        bench.socket.Put(Cut(stream, 1, Counting(20, 3), Bytes(4), lspx::Status::good, TIME + 1s));
        EXPECT_EQ(Receive(bench, packet_by_packet), qudex::RxErrc::sample_given_up);
        for (unsigned content : {2U, 3U}) {
            EXPECT_FALSE(Receive(bench, packet_by_packet));
            EXPECT_EQ(bench.Content(20), Counting(20, content)) << packet_by_packet;
        }
    }
}

}  // namespace
