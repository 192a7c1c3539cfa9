#include "bench.hpp"

#include <pktwire/lspx.hpp>

#include <fstream>

using namespace pktwire;
using namespace pktwire::test;
using lspx::RxErrc;
using testing::ElementsAre;

namespace {

struct Stream {
    std::uint16_t num_frames = 5;
    std::uint32_t units = 10;
    std::uint8_t unit_size = 2;
    std::uint8_t leader_info = 4;
    std::uint8_t trailer_info = 0;
    std::uint8_t padding = 0;
    std::uint8_t endianness = lspx::LITTLE_ENDIAN_UNITS;
    lspx::Status status{3};

    std::size_t PayloadSize() const { return std::size_t{units} * unit_size; }
};

Packets CutParts(const Stream& stream, unsigned id, const Parts& parts, time_point time = TIME,
                 std::uint16_t component = 0) {
    const auto padding = FromHex("d1d2");
    return test::Cut(SenderConfig(stream.num_frames, component),
                     {lspx::OTHER_SOURCE, stream.endianness, stream.leader_info, stream.trailer_info,
                      stream.units, stream.padding, padding},
                     id, parts, time, stream.status);
}

// The content of every part follows from the ID.
Packets Cut(const Stream& stream, unsigned id, time_point time = TIME, std::uint16_t component = 0) {
    return CutParts(stream, id,
                    {ContentOf(id, stream.leader_info), ContentOf(id, stream.PayloadSize(), component),
                     ContentOf(id, stream.trailer_info)},
                    time, component);
}

// Receives whole samples, or packet by packet as a caller does who places the payload himself.
struct LspxBench : Bench<lspx::Receiver> {
    LspxBench(const Stream& the_stream, bool packet_by_packet)
        : Bench{[&the_stream](RxSocket& rx) { return MakeReceiver(the_stream, rx); },
                the_stream.PayloadSize()},
          stream{the_stream},
          by_packet{packet_by_packet},
          leader_info(stream.leader_info),
          trailer_info(stream.trailer_info) {}

    static lspx::Receiver MakeReceiver(const Stream& stream, RxSocket& rx) {
        return {
            {stream.endianness, stream.leader_info, stream.trailer_info, stream.padding, stream.unit_size, 2},
            {new qudex::Receiver{ReceiverConfig(stream.num_frames), rx, nullptr},
             std::default_delete<qudex::Receiver>{}},
            nullptr};
    }
    std::error_code Receive() override {
        std::fill(buffer.Get().begin(), buffer.Get().end(), std::byte{});
        if (by_packet) return ReceivePackets();
        auto [error, sample] = receiver.ReceiveSample(leader_info, buffer.Get(), trailer_info, 1h);
        if (!error) Check(*sample.leader, *sample.trailer);
        return error;
    }
    auto Into(gsl::span<std::byte> piece) {
        auto builder = MakeRxIovsBuilder<lspx::detail::RxTraits, 1, 6>(entries);
        builder.Append(piece);
        return builder;
    }
    auto ReceiveLeader() {
        auto pieces = Into(gsl::span{leader_info}.first(1));
        pieces.Append(gsl::span{leader_info}.subspan(1));
        return receiver.ReceiveLeaderPacket(std::move(pieces), 1h);
    }
    auto ReceiveTrailer() { return receiver.ReceiveTrailerPacket(Into(trailer_info), 1h); }

    std::error_code ReceivePackets() {
        const auto leader = ReceiveLeader();
        if (leader.error) return leader.error;
        const std::uint32_t total = leader.packet->NumUnits();
        if (std::size_t{total} * stream.unit_size > buffer.Get().size()) return RxErrc::buffer_too_small;
        const auto frames = leader.packet->NumFrames();
        const std::uint32_t per_packet = frames > 2 ? (total + frames - 3) / (frames - 2U) : 0;
        std::uint32_t done = 0;
        for (std::uint16_t frame = 2; frame < frames; ++frame) {
            const std::uint32_t units = std::min(per_packet, total - done);
            const auto place = buffer.Get().subspan(std::size_t{done} * stream.unit_size,
                                                    std::size_t{units} * stream.unit_size);
            const auto payload = receiver.ReceivePayloadPacket(Into(place), 1h);
            if (payload.error) return payload.error;
            EXPECT_EQ(payload.packet->FirstUnit(), done + 1);
            EXPECT_EQ(payload.packet->SampleId(), leader.packet->SampleId());
            done += units;
        }
        if (done != total) return RxErrc::payload_missing;
        const auto trailer = ReceiveTrailer();
        if (!trailer.error) Check(*leader.packet, *trailer.packet);
        return trailer.error;
    }
    void Check(const lspx::Receiver::LeaderPacket& leader, const lspx::Receiver::TrailerPacket& trailer) {
        id = leader.SampleId();
        EXPECT_EQ(trailer.SampleId(), id);
        EXPECT_EQ(leader.GetStatus(), stream.status);
        EXPECT_GE(trailer.Timestamp(), TIME);
        EXPECT_TRUE(buffer.Holds(ContentOf(id, std::size_t{leader.NumUnits()} * stream.unit_size))) << id;
        EXPECT_EQ(leader_info, ContentOf(id, leader_info.size()));
        EXPECT_EQ(trailer_info, ContentOf(id, trailer_info.size()));
    }

    Stream stream;
    bool by_packet;
    Bytes leader_info;
    Bytes trailer_info;
    std::array<gsl::span<std::byte>, 6> entries{};
};

void ExpectInBothManners(const Stream& stream, const Arrivals& arrivals) {
    for (bool by_packet : {false, true}) {
        SCOPED_TRACE(by_packet ? "packet by packet" : "whole samples");
        LspxBench{stream, by_packet}.Expect(arrivals);
    }
}

TEST(LspxSender, WritesLeaderPayloadAndTrailerByteByByte) {
    const Stream stream{.num_frames = 4,
                        .units = 3,
                        .leader_info = 1,
                        .trailer_info = 2,
                        .padding = 3,
                        .status = lspx::Status{6}};
    const std::string qudex = "51554458 01 00 0000 00000009 1112131415161718 ";
    EXPECT_THAT(CutParts(stream, 9, {FromHex("ee"), FromHex("a1a2 b1b2 c1c2"), FromHex("0000")}),
                ElementsAre(FromHex(qudex + "0001 0004 01020304 00000000 00000014 0000 0000 00000000 00000000"
                                            "01 01 18 02 03 06 01 00 00000003 00000000 d1d2d1 ee"),
                            FromHex(qudex + "0002 0004 01020304 00000014 00000017 0000 0000 00000000 00000000"
                                            "01 02 18 02 03 06 00 00 00000003 00000001 d1d2d1 a1a2 b1b2"),
                            FromHex(qudex + "0003 0004 01020304 0000002b 00000015 0000 0000 00000000 00000000"
                                            "01 02 18 02 03 06 00 00 00000003 00000003 d1d2d1 c1c2"),
                            FromHex(qudex + "0004 0004 01020304 00000040 00000015 0000 0000 00000000 00000000"
                                            "01 03 18 02 03 06 02 00 00000003 00000000 d1d2d1 0000")));
}

// The code blocks of the page, from which peers in other languages are written.
TEST(LspxSender, SendsTheExampleOfTheWireFormatPage) {
    std::ifstream page{VOSK_WIRE_FORMAT_PAGE};
    Bytes example;
    bool in_block = false;
    for (std::string line; std::getline(page, line);) {
        if (line == "```") {
            in_block = !in_block;
        } else if (in_block) {
            example = example + FromHex(line);
        }
    }
    const Stream stream{.num_frames = 4, .units = 3, .leader_info = 1, .status = lspx::Status::good};
    Bytes sent;
    for (Bytes datagram :
         CutParts(stream, 9, {FromHex("ee"), FromHex("a1a2 b1b2 c1c2"), {}}, vosk::test::At(1))) {
        const Bytes topic = FromHex("00000007");
        std::copy(topic.begin(), topic.end(), datagram.begin() + 24);
        sent = sent + datagram;
    }
    EXPECT_EQ(example, sent);
}

TEST(LspxSender, RefusesSpansOfOtherSizesThanConfigured) {
    FakeTxSocket socket;
    qudex::Sender qudex_sender{SenderConfig(3), socket, nullptr};
    lspx::Sender sender{{.leader_extended_info_size = 4, .frame_size = 3}, qudex_sender};
    for (const auto& [info, payload] : {std::pair{3U, 12U}, {4U, 13U}, {4U, 0U}})
        EXPECT_EQ(sender.SendSample(Bytes(info), Bytes(payload), {}, TIME, {}, {}),
                  std::errc::invalid_argument);
    EXPECT_TRUE(socket.datagrams.empty());
    qudex::Sender too_few{SenderConfig(2), socket, nullptr};
    EXPECT_THROW((lspx::Sender{{.frame_size = 3}, too_few}), std::runtime_error);
}

TEST(LspxReceiver, ReceivesCameraFramesWhereTheyBelongInBothManners) {
    for (const Stream& stream : {Stream{.num_frames = 206, .units = 783360, .leader_info = 8},
                                 Stream{.num_frames = 943, .units = 4194304, .leader_info = 28},
                                 Stream{.num_frames = 8, .units = 7, .trailer_info = 3, .padding = 5},
                                 Stream{.num_frames = 3, .units = 3, .unit_size = 4, .leader_info = 33}}) {
        LspxBench bench{stream, false};
        bench.Expect({"whole samples", {Cut(stream, 1), Cut(stream, 2)}, "1 2", ""});
        bench.by_packet = true;
        bench.Expect({"packet by packet", {Cut(stream, 3)}, "3", ""});
        EXPECT_EQ(bench.Counters().copied + bench.Counters().ahead, 0U);
    }
}

TEST(LspxReceiver, EachFaultAndEachOtherSetUpCostsOneSampleInBothManners) {
    const Stream stream{.num_frames = 30, .units = 300};
    const Packets good = Cut(stream, 3);
    const auto without = [&good](std::ptrdiff_t first, std::ptrdiff_t last) {
        Packets rest = good;
        rest.erase(rest.begin() + first, rest.begin() + last);
        return rest;
    };
    const auto changed = [&good](std::size_t offset, unsigned by) {
        Packets bad = good;
        bad[3][offset] ^= static_cast<std::byte>(by);
        return bad;
    };
    Packets short_body = good;
    short_body[3].resize(good[3].size() - 2);
    short_body[3][35] = static_cast<std::byte>(good[3].size() - 2 - 48);
    const std::tuple<const char*, Packets, std::string, unsigned> cases[]{
        {"no leader", without(0, 1), "qudex:1", 1},
        {"no payload packet", without(14, 15), "qudex:1", 1},
        {"no trailer", without(29, 30), "qudex:1", 1},
        {"no second half", without(15, 30), "qudex:1", 15},
        {"no room for payload packets", {With(good[0], 23, 2)}, "lspx:6", 0},
        {"another version", changed(48, 2), "lspx:5", 0},
        {"another kind", changed(49, 1), "lspx:5", 0},
        {"a short body", short_body, "lspx:15", 0},
        {"another first unit", changed(63, 1), "lspx:15", 0},
        {"another count of units", changed(59, 1), "lspx:15", 0},
        {"byte order", Cut({.num_frames = 30, .units = 300, .endianness = lspx::BIG_ENDIAN_UNITS}, 3),
         "lspx:1", 0},
        {"unit size", Cut({.num_frames = 30, .units = 300, .unit_size = 4}, 3), "lspx:2", 0},
        {"leader information", Cut({.num_frames = 30, .units = 300, .leader_info = 5}, 3), "lspx:3", 0},
        {"trailer information", Cut({.num_frames = 30, .units = 300, .trailer_info = 5}, 3), "lspx:3", 0},
        {"padding", Cut({.num_frames = 30, .units = 300, .padding = 1}, 3), "lspx:4", 0},
        {"frames", Cut({.num_frames = 31, .units = 300}, 3), "qudex:3", 0},
        {"units", Cut({.num_frames = 30, .units = 301}, 3), "lspx:13", 0}};
    for (const auto& [name, bad, error, lost] : cases) {
        for (bool by_packet : {false, true}) {
            LspxBench bench{stream, by_packet};
            for (unsigned id = 1; id <= 5; ++id) bench.socket.Put(id == 3 ? bad : Cut(stream, id));
            EXPECT_EQ(bench.ReceiveAll(), "1 2 " + error + " 4 5") << name << by_packet;
            EXPECT_EQ(bench.Counters().given_up + bench.Counters().refused, 1U) << name << by_packet;
            EXPECT_EQ(bench.Counters().lost, lost) << name << by_packet;
        }
    }
}

TEST(LspxReceiver, OrdersWindowsStraysAndNewStartsCostNothingInBothManners) {
    const Stream stream{.num_frames = 30, .units = 300, .trailer_info = 1};
    Packets mixed = Cut(stream, 1);
    Packets backwards{mixed.rbegin(), mixed.rend()};
    backwards.insert(backwards.begin() + 20, Cut(stream, 2)[0]);
    std::rotate(mixed.begin(), mixed.begin() + 3, mixed.begin() + 9);
    std::swap(mixed[20], mixed[29]);
    mixed.push_back(mixed[5]);
    std::rotate(mixed.begin() + 15, mixed.end() - 1, mixed.end());
    ExpectInBothManners(stream, {"mixed", {mixed}, "1", "duplicate 1 reordered 12"});
    ExpectInBothManners(stream, {"backwards, beside another", {backwards}, "1", "reordered 29"});

    const Stream window{.num_frames = 5, .units = 31, .trailer_info = 1};
    ExpectInBothManners(
        stream, {"windows", {Cut(stream, 1), Cut(window, 2), Cut(window, 3), Cut(stream, 4)}, "1 2 3 4", ""});

    Packets headless = Cut(Stream{}, 1);
    headless.erase(headless.begin());
    for (const bool by_packet : {false, true}) {
        LspxBench bench{{}, by_packet};
        for (const Packets& packets : {headless, Cut(Stream{}, 2), Cut(Stream{}, 1, TIME + 1s)})
            bench.socket.Put(packets);
        EXPECT_EQ(bench.ReceiveAll(), "qudex:1 2 1") << by_packet;
    }

    const Packets good = Cut(Stream{}, 1);
    const Packets theirs = Cut(Stream{}, 1, TIME, 1);
    const Packets misfits{With(Cut(Stream{}, 100)[0], 23, 1), Cut({.num_frames = 6}, 101)[2],
                          Cut({.endianness = lspx::BIG_ENDIAN_UNITS}, 102)[0]};
    Arrivals strays{"strays between the packets", {{good[0]}}, "1", "foreign 4 malformed 12"};
    for (std::size_t i = 1; i < good.size(); ++i) {
        strays.packets.push_back(misfits);
        strays.packets.push_back({theirs[i - 1], good[i]});
    }
    ExpectInBothManners(Stream{}, strays);
}

TEST(LspxReceiver, PacketCallsForAnotherKindSayOtherPacket) {
    const Stream stream;
    LspxBench bench{stream, true};
    bench.socket.Put(Cut(stream, 1));
    EXPECT_EQ(bench.receiver.ReceivePayloadPacket(bench.Into(bench.buffer.Get()), 1h).error,
              RxErrc::other_packet);  // the leader is gone, and with it its sample
    bench.Expect({"", {Cut(stream, 2)}, "qudex:1 2", "given_up 1 lost 1 stale 4 unexpected 1"});

    bench.socket.Put(Cut(stream, 3));
    ASSERT_FALSE(bench.ReceiveLeader().error);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(bench.ReceiveTrailer().error, RxErrc::other_packet);
    EXPECT_EQ(bench.receiver.ReceivePayloadPacket(bench.Into(bench.buffer.Get()), 1h).error,
              RxErrc::other_packet);  // the trailer, which ends the sample

    bench.leader_info.resize(3);
    bench.socket.Put(Cut(stream, 4));
    EXPECT_EQ(bench.ReceiveLeader().error, std::errc::message_size);
    EXPECT_EQ(Mishaps(bench.Counters()), "given_up 2 refused 1 lost 1 stale 4 unexpected 5");
}

TEST(LspxReceiver, ASampleThatTheCallerLeavesIsCountedUnlessARestartForgetsIt) {
    LspxBench bench{Stream{}, false};
    for (unsigned id = 1; id <= 2; ++id) bench.socket.Put(Cut(Stream{}, id));
    ASSERT_FALSE(bench.ReceiveLeader().error);
    bench.Expect({"left for a whole one", {{Cut(Stream{}, 3)[0]}}, "2", "given_up 1 stale 4"});
    bench.leader_info = Bytes(4);
    bench.Expect({"left for another buffer", {}, "qudex:1", "given_up 2 lost 4 stale 4"});
    bench.Expect({"in work", {{Cut(Stream{}, 4)[0]}}, "", "given_up 2 lost 4 stale 4"});
    bench.socket.Put(Cut(Stream{}, 5));
    EXPECT_FALSE(bench.ReceiveLeader().error);
    EXPECT_EQ(Mishaps(bench.Counters()), "given_up 3 lost 8 stale 4");
    bench.receiver.Restart();
    bench.Expect({"after a restart", {Cut(Stream{}, 5)}, "5", ""});
}

}  // namespace
