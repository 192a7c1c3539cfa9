#include "qudexBench.hpp"

#include <pktwire/detail/crc32c.hpp>

#include <vosk/test/support.hpp>

using namespace pktwire;
using namespace pktwire::test;
using qudex::RxErrc;
using testing::ElementsAre;

namespace {

TEST(Crc32c, GivesTheKnownValueInBothForms) {
    const std::string digits = "123456789";
    detail::Crc32c crc;
    crc.Add(std::as_bytes(std::span{digits}).first(4));
    crc.Add(std::as_bytes(std::span{digits}).subspan(4));
    EXPECT_EQ(crc.Value(), 0xE3069283U);
    EXPECT_EQ(~detail::Crc32cByTable(~0U, std::as_bytes(std::span{digits})), 0xE3069283U);
    const Bytes longer = Counting(8001);
    detail::Crc32c other;
    other.Add(longer);
    EXPECT_EQ(other.Value(), ~detail::Crc32cByTable(~0U, longer));
}

TEST(Qudex, HeaderIsWrittenByteByByteAndReadBack) {
    FakeTxSocket socket;
    auto config = SenderConfig(2);
    config.component_id = 0x0506;
    config.sample_size = 3;
    qudex::Sender sender{config, socket, nullptr};
    sender.SetSampleId(0xA1A2A3A4);
    ASSERT_FALSE(sender.SendSample(FromHex("c1 c2 c3"), TIME, 0xE1E2));
    const auto datagrams = socket.Take();
    EXPECT_THAT(datagrams,
                ElementsAre(FromHex("51554458 01 02 0506 a1a2a3a4 1112131415161718 0001 0002 01020304"
                                    "00000000 00000002 e1e2 0000 00000003 00000000 c1 c2"),
                            FromHex("51554458 01 02 0506 a1a2a3a4 1112131415161718 0002 0002 01020304"
                                    "00000002 00000001 e1e2 0000 00000003 00000000 c3")));
    // The ID goes up by itself.
    ASSERT_FALSE(sender.SendSample(FromHex("c1 c2 c3"), TIME, {}));
    EXPECT_EQ(socket.Take().front()[11], std::byte{0xA5});
    EXPECT_EQ(sender.SendSample(FromHex("c1 c2"), TIME, {}), std::errc::message_size);

    Bench bench{2, 3};
    bench.socket.Put(datagrams);
    const auto [error, handle] = bench.receiver.ReceiveSample(bench.buffer.Get(), 0ns);
    ASSERT_FALSE(error);
    EXPECT_EQ(bench.Content(), FromHex("c1c2c3"));
    EXPECT_EQ(handle->first->SampleId(), 0xA1A2A3A4U);
    EXPECT_EQ(handle->first->Timestamp(), TIME);
    EXPECT_EQ(handle->first->NumFrames(), 2U);
    EXPECT_EQ(handle->first->ComponentId(), 0x0506U);
    EXPECT_EQ(handle->second->FrameNumber(), 2U);
    EXPECT_EQ(handle->second->Extra(), 0xE1E2U);
}

TEST(QudexSender, SendsPiecesOfAnySizeAsFramesInPlace) {
    FakeTxSocket socket;
    qudex::Sender sender{SenderConfig(3), socket, nullptr};
    const Bytes record = Counting(21416);
    const std::array<std::pair<std::size_t, std::size_t>, 3> segments{
        {{0, 7136}, {7136, 7136}, {14272, 7144}}};
    Bench bench{3, record.size()};
    for (unsigned id : {7U, 8U}) {
        sender.SetSampleId(id);
        for (const auto& [offset, size] : segments) {
            std::array<gsl::span<const std::byte>, 3> entries{};
            detail::IovsBuilder<const std::byte> builder{entries, 1};
            builder.Append(gsl::span<const std::byte>{record}.subspan(offset, size));
            ASSERT_FALSE(sender.SendPacket(std::move(builder), TIME, std::uint16_t{0}));
            EXPECT_EQ(entries[0].size(), sizeof(wire::QudexHeader));
        }
        bench.socket.Put(socket.Take());
        ASSERT_FALSE(bench.Receive());
        EXPECT_EQ(bench.id, id);
        EXPECT_EQ(bench.Content(), record);
    }
    // The second sample arrived where it belongs, since the first one taught the cut.
    EXPECT_EQ(bench.Counters().copied, 2U);

    std::array<gsl::span<const std::byte>, 1> entries{};
    EXPECT_EQ(sender.SendPacket(detail::IovsBuilder<const std::byte>{entries, 0}, TIME, {}),
              std::errc::invalid_argument);
    EXPECT_THROW((detail::IovsBuilder<const std::byte>{entries, 1}.Append({})), std::runtime_error);
}

TEST(QudexSender, SendsAllFramesAfterARefusalButNoneAfterAnotherError) {
    FakeTxSocket socket;
    qudex::Sender sender{SenderConfig(40), socket, nullptr};
    socket.error = std::make_error_code(std::errc::connection_refused);
    EXPECT_EQ(sender.SendSample(Counting(400), TIME, {}).value(), 111);
    EXPECT_EQ(socket.Take().size(), 40U);
    socket.error = std::make_error_code(std::errc::network_unreachable);
    EXPECT_EQ(sender.SendSample(Counting(400), TIME, {}), std::errc::network_unreachable);
    EXPECT_EQ(socket.Take().size(), 32U);
}

TEST(QudexReceiver, PutsFramesOfManySizesTogetherWithoutACopy) {
    for (std::uint16_t frames :
         {std::uint16_t{1}, std::uint16_t{3}, std::uint16_t{206}, std::uint16_t{943}}) {
        for (std::size_t size : {std::size_t{1}, std::size_t{943}, std::size_t{21416}}) {
            const Bytes sample = Counting(size);
            Bench bench{frames, size};
            for (unsigned id = 1; id <= 3; ++id) bench.socket.Put(Cut(sample, frames, id));
            EXPECT_THAT(bench.ReceiveAll(), ElementsAre(1, 2, 3))
                << frames << " frames, " << size << " bytes";
            EXPECT_EQ(bench.Content(), sample);
            EXPECT_EQ(bench.Counters().copied, 0U);
            EXPECT_EQ(bench.Counters().ahead, 0U);
        }
    }
}

TEST(QudexReceiver, SurvivesEveryOrderOfTheFramesOfTwoSamples) {
    const std::array<Bytes, 2> samples{Counting(30, 1), Counting(30, 99)};
    std::vector<Bytes> datagrams = Cut(samples[0], 3, 1);
    for (const Bytes& datagram : Cut(samples[1], 3, 2)) datagrams.push_back(datagram);
    std::array<std::size_t, 6> order{0, 1, 2, 3, 4, 5};
    do {
        Bench bench{3, 30};
        for (std::size_t i : order) bench.socket.Put({datagrams[i]});
        std::vector<unsigned> ids;
        for (std::error_code error = bench.Receive(); error != std::errc::timed_out;
             error = bench.Receive()) {
            ids.push_back(bench.id);
            EXPECT_TRUE(error ? error == RxErrc::sample_given_up
                              : bench.Content() == samples.at(bench.id - 1));
        }
        // The one that is begun first is lost if the other is whole before it; a sample all of which came
        // before its forerunner began makes that one late.
        const auto last_at = [&order](std::size_t id) {
            return std::find_if(order.rbegin(), order.rend(), [id](auto i) { return i / 3 == id - 1; });
        };
        const unsigned begun = order[0] < 3 ? 1 : 2;
        const unsigned whole_first = last_at(1) > last_at(2) ? 1 : 2;
        const auto expected = begun != whole_first ? std::vector<unsigned>{0, whole_first}
                              : begun == 1         ? std::vector<unsigned>{1, 2}
                                                   : std::vector<unsigned>{2};
        ASSERT_EQ(ids, expected);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(QudexReceiver, ALostPacketCostsItsSampleAndNoOther) {
    const Bytes sample = Counting(2000);
    for (std::uint16_t frames : {std::uint16_t{2}, std::uint16_t{5}, std::uint16_t{50}}) {
        for (std::size_t lost : {std::size_t{0}, frames / 2UL, frames - 1UL}) {
            Bench bench{frames, sample.size()};
            for (unsigned id = 1; id <= 4; ++id) {
                auto datagrams = Cut(sample, frames, id);
                if (id == 2) datagrams.erase(datagrams.begin() + static_cast<std::ptrdiff_t>(lost));
                bench.socket.Put(datagrams);
            }
            EXPECT_THAT(bench.ReceiveAll(), ElementsAre(1, 0, 3, 4)) << frames << " frames, lost " << lost;
            EXPECT_EQ(bench.Content(), sample);
            EXPECT_EQ(bench.Counters().given_up, 1U);
            EXPECT_EQ(bench.Counters().lost, 1U);
        }
    }
}

TEST(QudexReceiver, GoesOnWithTheSampleInWorkAfterATimeOut) {
    const Bytes sample = Counting(300);
    const auto datagrams = Cut(sample, 3, 4);
    Bench bench{3, sample.size()};
    for (std::size_t i = 0; i < 2; ++i) {
        bench.socket.Put({datagrams[i]});
        EXPECT_EQ(bench.Receive(), std::errc::timed_out);
    }
    Bytes other(sample.size());
    EXPECT_EQ(bench.receiver.ReceiveSample(other, 0ns).first, RxErrc::sample_given_up);
    EXPECT_EQ(bench.receiver.ReceiveSample(other, 0ns).first, std::errc::timed_out);

    bench.socket.Put({Cut(sample, 3, 5)[0]});
    EXPECT_EQ(bench.Receive(), std::errc::timed_out);
    bench.socket.Put({Cut(sample, 3, 5)[2], Cut(sample, 3, 5)[1]});
    EXPECT_FALSE(bench.Receive());
    EXPECT_EQ(bench.id, 5U);
    EXPECT_EQ(bench.Content(), sample);
}

TEST(QudexReceiver, ARestartForgetsAllThatCameBefore) {
    const Bytes sample = Counting(300);
    const auto datagrams = Cut(sample, 3, 4);
    Bench bench{3, sample.size()};
    bench.socket.Put(Cut(sample, 3, 3));
    bench.socket.Put({datagrams[0], datagrams[1], Cut(sample, 3, 6)[0]});
    EXPECT_THAT(bench.ReceiveAll(), ElementsAre(3));
    for (unsigned id = 6; id < 40; ++id) bench.socket.Put(Cut(sample, 3, id));
    bench.receiver.Restart();
    EXPECT_EQ(bench.Counters().packets, 0U);
    bench.socket.Put({datagrams[2]});     // on its own it makes no sample
    bench.socket.Put(Cut(sample, 3, 3));  // its sender was restarted as well
    EXPECT_THAT(bench.ReceiveAll(), ElementsAre(0, 3));
    EXPECT_EQ(bench.Content(), sample);
}

TEST(QudexReceiver, ACallerWhoKeepsPacketsIsToldWhenNoneIsLeft) {
    const Bytes sample = Counting(10);
    Bench bench{1, 10};
    std::vector<qudex::Receiver::SampleHandle> held;
    std::error_code error;
    for (unsigned id = 1; id < 100 && !error; ++id) {
        bench.socket.Put(Cut(sample, 1, id));
        auto result = bench.receiver.ReceiveSample(bench.buffer.Get(), 0ns);
        error = result.first;
        if (!error) held.push_back(std::move(*result.second));
    }
    EXPECT_EQ(error, std::errc::no_buffer_space);
    EXPECT_GE(held.size(), 4U);
    held.clear();
    EXPECT_FALSE(bench.Receive());
}

TEST(QudexReceiver, ConfigurationsThatCannotWorkAreNamed) {
    FakeRxSocket rx;
    FakeTxSocket tx;
    EXPECT_THROW((qudex::Receiver{ReceiverConfig(0), rx, nullptr}), std::runtime_error);
    auto config = ReceiverConfig(3);
    config.buf_packets = 1'000'000'000'000;
    EXPECT_THROW((qudex::Receiver{config, rx, nullptr}), std::runtime_error);
    EXPECT_THROW((qudex::Sender{SenderConfig(0), tx, nullptr}), std::runtime_error);
    auto wide = SenderConfig(1);
    wide.niovs = 1'000'000;
    EXPECT_THROW((qudex::Sender{wide, tx, nullptr}), std::runtime_error);
}

}  // namespace
