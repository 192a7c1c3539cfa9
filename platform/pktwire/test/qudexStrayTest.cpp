// Packets that should not be there: damaged, foreign, hostile, late.

#include "qudexBench.hpp"

#include <vosk/test/support.hpp>

using namespace pktwire;
using namespace pktwire::test;
using qudex::RxErrc;
using testing::ElementsAre;

namespace {

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
    bench.socket.Put(Cut(sample, 1, 0, {}));       // a new start, by its ID
    bench.socket.Put(Cut(sample, 1, 0xFFFFFFFF, {}));
    bench.socket.Put(Cut(sample, 1, 1, at(4)));
    EXPECT_THAT(bench.ReceiveAll(), ElementsAre(100, 102, 98, 0, 1));
    EXPECT_EQ(bench.Counters().stale, 4U);
    EXPECT_EQ(bench.Counters().missed, 1U);
}

TEST(QudexReceiver, DropsReplaysButFollowsASenderThatWasRestartedWithAnOlderClock) {
    const Bytes sample = Counting(30);
    const auto at = [](unsigned id) { return TIME + std::chrono::microseconds{id}; };
    Bench bench{3, 30};
    for (unsigned id = 100; id < 104; ++id) {
        bench.socket.Put(Cut(sample, 3, id, at(id)));
        for (unsigned old : {id - 40, id - 39, id + 1000}) bench.socket.Put(Cut(sample, 3, old, at(50)));
    }
    bench.socket.Put(Cut(sample, 3, 104, at(90)));  // the clock was set back, the sender goes on
    EXPECT_THAT(bench.ReceiveAll(), ElementsAre(100, 101, 102, 103, 104));
    EXPECT_EQ(bench.Counters().stale, 4 * 9U);
    for (unsigned id = 1; id <= 5; ++id) bench.socket.Put(Cut(sample, 3, id, at(id)));
    EXPECT_THAT(bench.ReceiveAll(), ElementsAre(4, 5));
    EXPECT_EQ(bench.Counters().missed, 0U);
}

TEST(QudexReceiver, CountsTheSamplesOfWhichNothingCame) {
    const Bytes sample = Counting(30);
    Bench bench{3, 30};
    // 3 missed, then 9997, then none, as the sender was started again, ahead and back.
    for (unsigned id : {0xFFFFFFFEU, 2U, 10000U, 3000000U, 10U}) bench.socket.Put(Cut(sample, 3, id));
    bench.socket.Put({Cut(sample, 3, 12)[1]});  // comes in part, and 11 not at all
    bench.socket.Put(Cut(sample, 3, 13));
    EXPECT_THAT(bench.ReceiveAll(), ElementsAre(0xFFFFFFFE, 2, 10000, 3000000, 10, 0, 13));
    EXPECT_EQ(bench.Counters().missed, 3U + 9997U + 1U);
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

// Its clock is behind, and it never makes a run: its samples are numbered in large steps.
TEST(QudexReceiver, FollowsAStreamFromWhichNothingElseIsDelivered) {
    const Bytes sample = Counting(30);
    Bench bench{3, 30};
    bench.socket.Put(Cut(sample, 3, 1000, TIME + 1h));
    for (unsigned i = 1; i <= 18; ++i) bench.socket.Put(Cut(sample, 3, 2000 + 20 * i));
    EXPECT_THAT(bench.ReceiveAll(), ElementsAre(1000, 0, 2360));  // one is lost on the way
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

}  // namespace
