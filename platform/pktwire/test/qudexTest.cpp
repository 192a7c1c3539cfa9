#include "bench.hpp"

#include <pktwire/detail/crc32c.hpp>

using namespace pktwire;
using namespace pktwire::test;
using qudex::RxErrc;
using testing::ElementsAre;

namespace {

TEST(Crc32c, GivesTheKnownValueInBothForms) {
    const std::string digits = "123456789";
    EXPECT_EQ(~detail::Crc32cByTable(~0U, std::as_bytes(std::span{digits})), 0xE3069283U);
    const Bytes longer = Counting(8001);
    detail::Crc32c crc;
    crc.Add(std::span{longer}.first(4));
    crc.Add(std::span{longer}.subspan(4));
    EXPECT_EQ(crc.Value(), ~detail::Crc32cByTable(~0U, longer));
}

TEST(Qudex, HeaderIsWrittenByteByByteAndReadBack) {
    FakeTxSocket tx;
    auto config = SenderConfig(2, 0x0506);
    config.sample_size = 3;
    qudex::Sender sender{config, tx, nullptr};
    sender.SetSampleId(0xA1A2A3A4);
    ASSERT_FALSE(sender.SendSample(FromHex("c1 c2 c3"), TIME, 0xE1E2));
    const auto datagrams = tx.Take();
    EXPECT_THAT(datagrams,
                ElementsAre(FromHex("51554458 01 02 0506 a1a2a3a4 1112131415161718 0001 0002 01020304"
                                    "00000000 00000002 e1e2 0000 00000003 00000000 c1 c2"),
                            FromHex("51554458 01 02 0506 a1a2a3a4 1112131415161718 0002 0002 01020304"
                                    "00000002 00000001 e1e2 0000 00000003 00000000 c3")));
    EXPECT_EQ(sender.SendSample(FromHex("c1 c2"), TIME, {}), std::errc::message_size);

    FakeRxSocket rx;
    rx.Put(datagrams);
    GuardedBuffer buffer{3};
    qudex::Receiver receiver{ReceiverConfig(2), rx, nullptr};
    const auto [error, handle] = receiver.ReceiveSample(buffer.Get(), 0ns);
    ASSERT_FALSE(error);
    EXPECT_TRUE(buffer.Holds(FromHex("c1c2c3")));
    const auto& [first, last] = *handle;
    EXPECT_EQ(std::tuple(first->SampleId(), first->Timestamp(), first->NumFrames(), first->ComponentId()),
              std::tuple(0xA1A2A3A4U, TIME, 2U, 0x0506U));
    EXPECT_EQ(last->FrameNumber(), 2U);
    EXPECT_EQ(last->Extra(), 0xE1E2U);
}

TEST(QudexSender, SendsPiecesOfAnySizeAsFramesInPlace) {
    FakeTxSocket tx;
    qudex::Sender sender{SenderConfig(3), tx, nullptr};
    QudexBench bench{3, 21416};
    sender.SetSampleId(7);
    for (unsigned id : {7U, 8U}) {  // the second by itself
        const Bytes record = ContentOf(id, 21416);
        for (const auto& [offset, size] : {std::pair{0U, 7136U}, {7136U, 7136U}, {14272U, 7144U}}) {
            std::array<gsl::span<const std::byte>, 3> entries{};
            detail::IovsBuilder<const std::byte> builder{entries, 1};
            builder.Append(gsl::span{record}.subspan(offset, size));
            ASSERT_FALSE(sender.SendPacket(std::move(builder), TIME, std::uint16_t{0}));
        }
    }
    bench.Expect({"pieces", {tx.Take()}, "7 8", ""});
    // The second sample arrived where it belongs, since the first one taught the cut.
    EXPECT_EQ(bench.Counters().copied, 2U);
    std::array<gsl::span<const std::byte>, 1> entries{};
    EXPECT_EQ(sender.SendPacket(detail::IovsBuilder<const std::byte>{entries, 0}, TIME, {}),
              std::errc::invalid_argument);
    EXPECT_THROW((detail::IovsBuilder<const std::byte>{entries, 1}.Append({})), std::runtime_error);
}

TEST(QudexSender, SendsAllFramesAfterARefusalButNoneAfterAnotherError) {
    FakeTxSocket tx;
    qudex::Sender sender{SenderConfig(40), tx, nullptr};
    tx.error = std::make_error_code(std::errc::connection_refused);
    EXPECT_EQ(sender.SendSample(Counting(400), TIME, {}).value(), 111);
    EXPECT_EQ(tx.Take().size(), 40U);
    tx.error = std::make_error_code(std::errc::network_unreachable);
    EXPECT_EQ(sender.SendSample(Counting(400), TIME, {}), std::errc::network_unreachable);
    EXPECT_EQ(tx.Take().size(), 32U);
}

TEST(QudexReceiver, PutsFramesOfManySizesTogetherWithoutACopy) {
    for (std::uint16_t frames : std::initializer_list<std::uint16_t>{1, 3, 206, 943}) {
        for (const std::size_t size : {1U, 943U, 21416U}) {
            QudexBench bench{frames, size};
            bench.Expect({"", {Cut({1, frames, size}), Cut({2, frames, size})}, "1 2", ""});
            EXPECT_EQ(bench.Counters().copied + bench.Counters().ahead, 0U);
        }
    }
}

TEST(QudexReceiver, SurvivesEveryOrderOfTheFramesOfTwoSamples) {
    const Packets datagrams = PacketsOf("1 2");
    std::array<std::size_t, 6> order{0, 1, 2, 3, 4, 5};
    do {
        QudexBench bench;
        for (std::size_t i : order) bench.socket.Put({datagrams[i]});
        // The one that is begun first is lost if the other is whole before it; a sample all of which came
        // before its forerunner began makes that one late.
        const auto last_at = [&order](std::size_t id) {
            return std::find_if(order.rbegin(), order.rend(), [id](auto i) { return i / 3 == id - 1; });
        };
        const unsigned begun = order[0] < 3 ? 1 : 2;
        const unsigned whole_first = last_at(1) > last_at(2) ? 1 : 2;
        const auto expected = begun != whole_first ? "qudex:1 " + std::to_string(whole_first)
                              : begun == 1         ? "1 2"
                                                   : "2";
        ASSERT_EQ(bench.ReceiveAll(), expected);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(QudexReceiver, ALostPacketCostsItsSampleAndNoOther) {
    for (std::uint16_t frames : std::initializer_list<std::uint16_t>{2, 5, 50}) {
        for (const int lost : {0, frames / 2, frames - 1}) {
            Packets second = Cut({2, frames, 2000});
            second.erase(second.begin() + lost);
            QudexBench{frames, 2000}.Expect(
                {"",
                 {Cut({1, frames, 2000}), second, Cut({3, frames, 2000}), Cut({4, frames, 2000})},
                 "1 qudex:1 3 4",
                 "given_up 1 lost 1"});
        }
    }
}

TEST(QudexReceiver, GoesOnWithTheSampleInWorkAfterATimeOut) {
    QudexBench bench;
    bench.Expect({"", {PacketsOf("4.1")}, "", ""});
    bench.Expect({"", {PacketsOf("4.2")}, "", ""});
    Bytes other(30);
    EXPECT_EQ(bench.receiver.ReceiveSample(other, 0ns).first, RxErrc::sample_given_up);
    EXPECT_EQ(bench.receiver.ReceiveSample(other, 0ns).first, std::errc::timed_out);
    bench.Expect({"", {PacketsOf("5.1")}, "", "given_up 1 lost 1"});
    bench.Expect({"", {PacketsOf("5.3 5.2")}, "5", "given_up 1 lost 1 reordered 1"});
}

TEST(QudexReceiver, ARestartForgetsAllThatCameBefore) {
    QudexBench bench;
    bench.Expect({"before", {PacketsOf("3 4.1 4.2 6.1")}, "3", ""});
    for (unsigned id = 6; id < 40; ++id) bench.socket.Put(Cut({id}));
    bench.receiver.Restart();
    EXPECT_EQ(bench.Counters().packets, 0U);
    // A frame that makes no sample on its own, and a sender that was restarted as well.
    bench.Expect({"after", {PacketsOf("4.3 3")}, "qudex:1 3", "given_up 1 lost 2"});
}

TEST(QudexReceiver, ACallerWhoKeepsPacketsGetsAnErrorWhenNoneIsLeft) {
    QudexBench bench{1, 10};
    for (unsigned id = 1; id < 100; ++id) bench.socket.Put(Cut({id, 1, 10}));
    const auto receive = [&bench] { return bench.receiver.ReceiveSample(bench.buffer.Get(), 0ns); };
    std::vector<decltype(receive())> held;
    do held.push_back(receive());
    while (!held.back().first);
    EXPECT_EQ(held.back().first, std::errc::no_buffer_space);
    EXPECT_GE(held.size(), 5U);
    held.clear();
    EXPECT_FALSE(bench.Receive());
}

TEST(QudexReceiver, ConfigurationsThatCannotWorkAreRefused) {
    FakeRxSocket rx;
    for (const auto& [frames, queue] : {std::pair{0, 0UL}, {3, 1'000'000'000'000UL}}) {
        auto config = ReceiverConfig(static_cast<std::uint16_t>(frames));
        config.buf_packets = queue;
        EXPECT_THROW((qudex::Receiver{config, rx, nullptr}), std::runtime_error);
    }
    FakeTxSocket tx;
    EXPECT_THROW((qudex::Sender{SenderConfig(0), tx, nullptr}), std::runtime_error);
}

}  // namespace
