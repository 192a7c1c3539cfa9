#include "guardedBuffer.hpp"

#include <pktwire/detail/crc32c.hpp>
#include <pktwire/qudex.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

using namespace pktwire;
using namespace pktwire::test;
using namespace std::chrono_literals;
using qudex::RxErrc;
using testing::ElementsAre;

namespace {

constexpr std::uint32_t TOPIC = 0x01020304;
constexpr time_point TIME{std::chrono::nanoseconds{0x1112131415161718}};

qudex::Sender::Config SenderConfig(std::uint16_t num_frames) {
    qudex::Sender::Config config;
    config.topic = TOPIC;
    config.num_frames = num_frames;
    return config;
}

qudex::Receiver::Config ReceiverConfig(std::uint16_t num_frames) {
    qudex::Receiver::Config config;
    config.topic = TOPIC;
    config.num_frames = num_frames;
    return config;
}

std::vector<Bytes> Cut(const Bytes& sample, std::uint16_t num_frames, unsigned id, time_point time = TIME,
                       std::uint16_t component = 0) {
    auto config = SenderConfig(num_frames);
    config.component_id = component;
    return test::Cut(config, id, sample, time);
}

struct Bench {
    explicit Bench(std::uint16_t num_frames, std::size_t sample_size)
        : receiver{ReceiverConfig(num_frames), socket, nullptr}, buffer{sample_size} {}

    std::error_code Receive() {
        auto [error, handle] = receiver.ReceiveSample(buffer.Get(), 1h);
        EXPECT_EQ(handle.has_value(), !error);
        id = handle ? handle->first->SampleId() : 0;
        return error;
    }
    // Receives until time-out: the IDs of the samples, 0 for each error.
    std::vector<unsigned> ReceiveAll() {
        std::vector<unsigned> ids;
        for (std::error_code error = Receive(); error != std::errc::timed_out; error = Receive())
            ids.push_back(id);
        return ids;
    }
    Bytes Content() { return buffer.Content(); }
    const RxCounters& Counters() const { return receiver.GetCounters(); }

    FakeRxSocket socket;
    qudex::Receiver receiver;
    GuardedBuffer buffer;
    unsigned id = 0;
};

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

TEST(QudexReceiver, RepairsReorderedAndDuplicatedPackets) {
    const Bytes sample = Counting(20000);
    auto datagrams = Cut(sample, 20, 5);
    std::swap(datagrams[3], datagrams[4]);
    std::swap(datagrams[0], datagrams[12]);
    datagrams.insert(datagrams.begin() + 8, datagrams[2]);
    Bench bench{20, sample.size()};
    bench.socket.Put(datagrams);
    EXPECT_FALSE(bench.Receive());
    EXPECT_EQ(bench.Content(), sample);
    EXPECT_EQ(bench.Counters().duplicate, 1U);
    bench.socket.Put({datagrams[1]});
    EXPECT_EQ(bench.Receive(), std::errc::timed_out);
    EXPECT_EQ(bench.Counters().stale, 1U);
    EXPECT_GT(bench.Counters().reordered, 0U);
}

TEST(QudexReceiver, CountsBadPacketsByKindAndReceivesTheSampleAllTheSame) {
    const Bytes sample = Counting(300);
    const auto good = Cut(sample, 3, 9);
    const auto with = [&](std::size_t offset, int value) {
        Bytes bad = good[1];
        bad[offset] = static_cast<std::byte>(value);
        return bad;
    };
    Bench bench{3, sample.size()};
    bench.socket.Put({good[0],
                      FromHex("51"),
                      {},
                      Bytes(good[1].begin(), good[1].end() - 1),
                      good[1] + FromHex("00"),
                      with(0, 0),
                      with(4, 2),
                      with(27, 9),
                      with(21, 0),
                      with(21, 4),
                      with(23, 2),
                      Counting(9000),
                      good[1],
                      good[2]});
    EXPECT_THAT(bench.ReceiveAll(), ElementsAre(9));
    EXPECT_EQ(bench.Content(), sample);
    const RxCounters& counters = bench.Counters();
    EXPECT_EQ(counters.short_ones, 3U);
    EXPECT_EQ(counters.long_ones, 1U);
    EXPECT_EQ(counters.foreign, 4U);
    EXPECT_EQ(counters.malformed, 3U);
    EXPECT_EQ(counters.packets, 14U);
}

TEST(QudexReceiver, RefusesSamplesThatCannotBeReceivedAndGoesOn) {
    const Bytes sample = Counting(300);
    Bench bench{3, sample.size()};
    unsigned next_id = 1000;
    const auto refused = [&](const std::vector<Bytes>& datagrams) {
        bench.socket.Put(datagrams);
        const std::error_code error = bench.Receive();
        bench.socket.Put(Cut(sample, 3, ++next_id));
        EXPECT_FALSE(bench.Receive());
        EXPECT_EQ(bench.Content(), sample);
        return error;
    };
    const auto placed = [&](unsigned id, std::array<std::uint8_t, 3> places) {
        auto datagrams = Cut(sample, 3, id);
        for (std::size_t i = 0; i < 3; ++i) {
            datagrams[i][31] = std::byte{places[i]};
            datagrams[i][43] = datagrams[i][42] = std::byte{};  // size not told
        }
        return datagrams;
    };
    EXPECT_EQ(refused(Cut(Counting(301), 3, 1)), RxErrc::sample_size);
    EXPECT_EQ(refused(Cut(sample, 4, 2)), RxErrc::frame_count);
    EXPECT_EQ(refused(placed(3, {0, 100, 201})), RxErrc::sample_size);
    EXPECT_EQ(refused(placed(4, {0, 99, 200})), RxErrc::frame_places);
    EXPECT_EQ(refused(placed(5, {0, 200, 100})), RxErrc::frame_places);
    auto hostile = Cut(sample, 3, 6);
    hostile[0][28] = hostile[0][29] = hostile[0][30] = hostile[0][31] = std::byte{0xFF};
    EXPECT_EQ(refused(hostile), RxErrc::sample_size);
    EXPECT_EQ(bench.Counters().refused, 6U);
}

TEST(QudexReceiver, ChecksTheChecksumUnlessToldNotTo) {
    auto config = SenderConfig(2);
    config.checksum_enable = true;
    const Bytes sample = Counting(1001);
    const auto good = test::Cut(config, 1, sample, TIME);
    auto flipped = good[1];
    flipped[60] ^= std::byte{4};

    Bench bench{2, sample.size()};
    bench.socket.Put({good[0], flipped, good[1]});
    EXPECT_THAT(bench.ReceiveAll(), ElementsAre(1));
    EXPECT_EQ(bench.Content(), sample);
    EXPECT_EQ(bench.Counters().checksum, 1U);

    auto lenient = ReceiverConfig(2);
    lenient.checksum_force_ignore = true;
    FakeRxSocket rx;
    rx.Put({good[0], flipped});
    qudex::Receiver receiver{lenient, rx, nullptr};
    Bytes buffer(sample.size());
    EXPECT_FALSE(receiver.ReceiveSample(buffer, 0ns).first);
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

TEST(QudexReceiver, AFloodOfStrangersDoesNotHoldTheCaller) {
    Bench bench{3, 30};
    for (int i = 0; i < 1000; ++i) bench.socket.Put({Counting(100)});
    EXPECT_EQ(bench.receiver.ReceiveSample(bench.buffer.Get(), 0ns).first, std::errc::timed_out);
    EXPECT_GT(bench.socket.datagrams.size(), 900U);
}

TEST(QudexReceiver, DropsLateSamplesButFollowsASenderThatStartsAnew) {
    const Bytes sample = Counting(30);
    const auto at = [](int ns) { return TIME + std::chrono::nanoseconds{ns}; };
    Bench bench{1, 30};
    bench.socket.Put(Cut(sample, 1, 100, at(0)));
    bench.socket.Put(Cut(sample, 1, 99, at(-1)));  // late
    bench.socket.Put(Cut(sample, 1, 100, at(0)));  // twice
    bench.socket.Put(Cut(sample, 1, 102, at(2)));  // one was lost
    bench.socket.Put(Cut(sample, 1, 101, at(1)));  // late
    bench.socket.Put(Cut(sample, 1, 98, at(3)));   // a new start, by its time
    bench.socket.Put(Cut(sample, 1, 0, at(-50)));  // a new start, by its ID
    bench.socket.Put(Cut(sample, 1, 0xFFFFFFFF, at(-51)));
    bench.socket.Put(Cut(sample, 1, 1, at(4)));
    EXPECT_THAT(bench.ReceiveAll(), ElementsAre(100, 102, 98, 0, 1));
    EXPECT_EQ(bench.Counters().stale, 4U);
}

TEST(QudexReceiver, AForgedSampleOfTheFutureCostsOnlyItself) {
    const Bytes sample = Counting(60);
    Bench bench{6, 60};
    bench.socket.Put(Cut(sample, 6, 10));
    bench.socket.Put({Cut(sample, 6, 14)[2], Cut(sample, 6, 0x80000000)[0]});
    for (unsigned id = 11; id <= 16; ++id) bench.socket.Put(Cut(sample, 6, id));
    auto ids = bench.ReceiveAll();
    ids.erase(std::remove(ids.begin(), ids.end(), 0U), ids.end());
    EXPECT_THAT(ids, ElementsAre(10, 11, 12, 13, 15, 16));
}

TEST(QudexReceiver, StraysThatNoSampleCanHoldCostNothing) {
    const Bytes sample = Counting(60);
    const auto good = Cut(sample, 6, 10);
    const auto size_untold = [](Bytes datagram) {
        datagram[42] = datagram[43] = std::byte{};
        return datagram;
    };
    auto beyond = size_untold(Cut(sample, 6, 300)[2]);
    beyond[31] = std::byte{51};
    const std::vector<Bytes> strays{Cut(Counting(1), 1, 100)[0],  size_untold(Cut(Counting(1), 1, 101)[0]),
                                    Cut(Counting(61), 1, 102)[0], size_untold(Cut(Counting(61), 1, 103)[0]),
                                    Cut(sample, 7, 104)[1],       beyond};
    Bench bench{6, sample.size()};
    for (std::size_t i = 0; i < good.size(); ++i) {
        bench.socket.Put({good[i]});
        if (i + 1 < good.size()) bench.socket.Put(strays);
    }
    EXPECT_THAT(bench.ReceiveAll(), ElementsAre(10));
    EXPECT_EQ(bench.Content(), sample);
    EXPECT_EQ(bench.Counters().malformed, 5 * strays.size());
}

TEST(QudexReceiver, ASenderSetUpAnewWithinASampleIsToldOf) {
    Bench bench{3, 30};
    bench.socket.Put({Cut(Counting(30), 3, 1)[0]});
    for (unsigned id = 2; id < 100; ++id) bench.socket.Put(Cut(Counting(30), 4, id));
    EXPECT_EQ(bench.Receive(), RxErrc::sample_given_up);
    EXPECT_EQ(bench.Receive(), RxErrc::frame_count);
}

TEST(QudexReceiver, FramesOfTwoSendersAreNeverMerged) {
    const std::array<Bytes, 2> samples{Counting(30, 1), Counting(30, 99)};
    Bench bench{3, 30};
    // The last of these wait in the queue while the first are taken.
    for (std::size_t id : {1U, 2U, 3U}) {
        const auto ours = Cut(samples[0], 3, static_cast<unsigned>(id), TIME, 5);
        const auto theirs = Cut(samples[1], 3, static_cast<unsigned>(id), TIME, 6);
        bench.socket.Put({ours[0], theirs[1], theirs[0], ours[2], theirs[2], ours[1]});
    }
    for (unsigned id : {1U, 2U, 3U}) {
        ASSERT_FALSE(bench.Receive());
        EXPECT_EQ(bench.id, id);
        EXPECT_THAT(samples, testing::Contains(bench.Content()));
    }
    EXPECT_GT(bench.Counters().foreign, 0U);
}

TEST(QudexReceiver, FollowsTheStreamAfterThreeSamplesThatAForgedOneMadeLate) {
    const Bytes sample = Counting(30);
    Bench bench{3, 30};
    bench.socket.Put(Cut(sample, 3, 10));
    bench.socket.Put(Cut(sample, 3, 26, TIME + 1h));
    for (unsigned id = 11; id <= 17; ++id) {
        bench.socket.Put(Cut(sample, 3, id));
        bench.socket.Put(Cut(sample, 3, 10));  // was delivered, and stays over
    }
    EXPECT_THAT(bench.ReceiveAll(), ElementsAre(10, 26, 14, 15, 16, 17));
}

TEST(QudexReceiver, LatePacketsThatMakeUpNoRunOfSamplesChangeNothing) {
    const Bytes sample = Counting(30);
    const auto frame_of = [&sample](unsigned id, std::uint16_t num_frames, std::uint16_t component = 0) {
        return Cut(sample, num_frames, id, TIME, component)[0];
    };
    const std::vector<std::pair<const char*, std::vector<Bytes>>> cases{
        {"copies of one frame", std::vector<Bytes>(20, frame_of(15, 3))},
        {"samples of one frame that do not fit",
         {Cut(Counting(1), 1, 13)[0], Cut(Counting(1), 1, 14)[0], Cut(Counting(1), 1, 15)[0]}},
        {"frames of several cuts",
         {frame_of(13, 1), frame_of(14, 2), Cut(sample, 2, 14)[1], frame_of(15, 1)}},
        {"several senders", {frame_of(13, 1, 1), frame_of(14, 1, 2), frame_of(15, 1, 3)}}};
    for (const auto& [name, strays] : cases) {
        Bench bench{3, 30};
        bench.socket.Put(Cut(sample, 3, 16));
        for (int i = 0; i < 3; ++i) bench.socket.Put(strays);
        bench.socket.Put(Cut(sample, 3, 12));  // late as well
        bench.socket.Put(Cut(sample, 3, 17));
        EXPECT_THAT(bench.ReceiveAll(), ElementsAre(16, 17)) << name;
        EXPECT_EQ(bench.Counters().stale + bench.Counters().malformed, 3 * strays.size() + 3) << name;
    }
    // On two ways every sample comes twice, and the second ones make no run.
    Bench twice{3, 30};
    for (unsigned id = 1; id <= 10; ++id) {
        twice.socket.Put(Cut(sample, 3, id + 3));
        twice.socket.Put(Cut(sample, 3, id));
    }
    EXPECT_THAT(twice.ReceiveAll(), ElementsAre(4, 5, 6, 7, 8, 9, 10, 11, 12, 13));
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
