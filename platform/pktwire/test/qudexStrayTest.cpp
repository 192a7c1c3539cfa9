// Packets that should not be there: damaged, foreign, hostile, late.

#include "bench.hpp"

using namespace pktwire;
using namespace pktwire::test;

namespace {

Packets SizeUntold(Packets datagrams) {
    for (Bytes& datagram : datagrams) datagram[42] = datagram[43] = std::byte{};
    return datagrams;
}

TEST(QudexReceiver, CountsBadPacketsByKindAndReceivesTheSampleAllTheSame) {
    const auto good = Cut({9});
    const Packets bad{FromHex("51"),
                      {},
                      Bytes(good[1].begin(), good[1].end() - 1),
                      good[1] + FromHex("00"),
                      Counting(9000),
                      With(good[1], 0, 0),
                      With(good[1], 4, 2),
                      With(good[1], 27, 9),
                      With(good[1], 21, 0),
                      With(good[1], 21, 4),
                      With(good[1], 23, 2)};
    QudexBench bench;
    bench.Expect({"", {{good[0]}, bad, {good[1], good[2]}}, "9", "short 3 long 1 foreign 4 malformed 3"});
    EXPECT_EQ(bench.Counters().packets, 14U);
}

TEST(QudexReceiver, RefusesSamplesThatCannotBeReceivedAndGoesOn) {
    const auto placed = [](unsigned id, std::array<unsigned, 3> places) {
        auto datagrams = SizeUntold(Cut({id}));
        for (std::size_t i = 0; i < 3; ++i) datagrams[i] = With(datagrams[i], 31, places[i]);
        return datagrams;
    };
    Packets hostile = Cut({6});
    for (std::size_t offset : {28U, 29U, 30U, 31U}) hostile[0] = With(hostile[0], offset, 0xFF);
    const Arrivals cases[]{{"too large", {Cut({1, 3, 31})}, "qudex:2", " stale 2"},
                           {"too many frames", {Cut({2, 4})}, "qudex:3", " stale 3"},
                           {"a hostile place", {hostile}, "qudex:2", " stale 2"},
                           {"beyond the end", {placed(4, {0, 10, 21})}, "qudex:2", ""},
                           {"overlapping", {placed(5, {0, 9, 20})}, "qudex:4", ""},
                           {"with a hole", {placed(6, {0, 11, 20})}, "qudex:4", ""},
                           {"out of order", {placed(7, {0, 20, 10})}, "qudex:4", ""},
                           {"begun late", {placed(8, {1, 11, 20})}, "qudex:4", " stale 2"}};
    for (const auto& [name, refused, error, rest] : cases) {
        QudexBench{}.Expect({name, {refused[0], Cut({9})}, error + " 9", "refused 1" + rest});
    }
}

TEST(QudexReceiver, ChecksTheChecksumUnlessItsConfigurationForbids) {
    auto config = SenderConfig(2);
    config.checksum_enable = true;
    const auto good = Cut(config, 1, ContentOf(1, 1001), TIME);
    const Bytes flipped = With(good[1], 60, 0xEE);
    QudexBench{2, 1001}.Expect({"strict", {{good[0], flipped, good[1]}}, "1", "checksum 1"});

    auto lenient = ReceiverConfig(2);
    lenient.checksum_force_ignore = true;
    FakeRxSocket rx;
    rx.Put({good[0], flipped});
    Bytes buffer(1001);
    EXPECT_FALSE((qudex::Receiver{lenient, rx, nullptr}.ReceiveSample(buffer, 0ns).first));
}

TEST(QudexReceiver, AFloodOfStrangersDoesNotHoldTheCaller) {
    QudexBench bench;
    for (int i = 0; i < 1000; ++i) bench.socket.Put({Counting(100)});
    EXPECT_EQ(bench.receiver.ReceiveSample(bench.buffer.Get(), 0ns).first, std::errc::timed_out);
    EXPECT_GT(bench.socket.datagrams.size(), 900U);
}

TEST(QudexReceiver, ASenderSetUpAgainWithinASampleCostsThatSampleAndIsRefused) {
    QudexBench bench;
    bench.socket.Put({Frame({1}, 1)});
    for (unsigned id = 2; id < 100; ++id) bench.socket.Put(Cut({id, 4}));
    EXPECT_EQ(bench.Receive(), qudex::RxErrc::sample_given_up);
    EXPECT_EQ(bench.Receive(), qudex::RxErrc::frame_count);
}

TEST(QudexReceiver, StraysThatNoSampleCanHoldCostNothing) {
    const Packets good = Cut({10, 6, 60});
    const Packets strays{Cut({100, 1, 1})[0],    SizeUntold(Cut({101, 1, 1}))[0],
                         Cut({102, 1, 61})[0],   SizeUntold(Cut({103, 1, 61}))[0],
                         Frame({104, 7, 60}, 2), With(SizeUntold(Cut({300, 6, 60}))[2], 31, 51)};
    Arrivals arrivals{"", {}, "10", "malformed 30"};
    for (const Bytes& frame : good) {
        if (!arrivals.packets.empty()) arrivals.packets.push_back(strays);
        arrivals.packets.push_back({frame});
    }
    QudexBench{6, 60}.Expect(arrivals);
}

TEST(QudexReceiver, LateAndForgedPacketsCostNoSampleButTheirOwn) {
    const auto at = [](unsigned id, std::int64_t ns) {
        return Cut({.id = id, .time = TIME + std::chrono::nanoseconds{ns}});
    };
    const auto undated = [](unsigned id) { return Cut({.id = id, .time = {}}); };
    const auto range = [&](unsigned first, unsigned last) {
        Packets packets;
        for (unsigned id = first; id <= last; ++id) {
            for (const Bytes& frame : Cut({id})) packets.push_back(frame);
        }
        return packets;
    };
    Arrivals replays{"replays, a clock set back, a sender restarted with an older clock",
                     {},
                     "100 101 102 103 104 4 5",
                     "stale 45"};
    for (unsigned id = 100; id < 104; ++id) {
        for (const auto& [it, time] : {std::pair{id, id}, {id - 40, 50U}, {id - 39, 50U}, {id + 1000, 50U}})
            replays.packets.push_back(at(it, time));
    }
    replays.packets.push_back(at(104, 90));
    for (unsigned id = 1; id <= 5; ++id) replays.packets.push_back(at(id, id));
    Arrivals forged{"a forged sample that makes three late",
                    {Cut({10}), at(26, 1000)},
                    "10 26 14 15 16 17",
                    "missed 15 stale 30"};
    for (unsigned id = 11; id <= 17; ++id) {
        forged.packets.push_back(Cut({id}));
        forged.packets.push_back(Cut({10}));  // was delivered, and stays over
    }
    Arrivals senders{"two senders", {}, "1 2 3", "foreign 9 reordered 3"};
    Arrivals twice{"two ways, so that each comes twice", {}, "4 5 6 7 8 9 10 11 12 13", "stale 30"};
    for (unsigned id = 1; id <= 10; ++id) {
        twice.packets.push_back(Cut({id + 3}));
        twice.packets.push_back(Cut({id}));
        const auto ours = Cut({.id = id, .component = 5});
        const auto theirs = Cut({.id = id, .component = 6});
        if (id <= 3) senders.packets.push_back({ours[0], theirs[1], theirs[0], ours[2], theirs[2], ours[1]});
    }
    // The clock is behind, and the samples make no run: they are numbered in large steps. One is lost on the
    // way.
    Arrivals alone{"a stream from which nothing else is delivered",
                   {at(1000, 3600)},
                   "1000 qudex:1 2360",
                   "given_up 1 lost 1 stale 49"};
    for (unsigned i = 1; i <= 18; ++i) alone.packets.push_back(Cut({2000 + 20 * i}));
    const Arrivals cases[]{
        alone,
        replays,
        forged,
        senders,
        twice,
        {"late, twice, new starts by time and by ID",
         {at(100, 0), at(99, -1), at(100, 0), at(102, 2), at(101, 1), at(98, 3), undated(0),
          undated(0xFFFFFFFF), at(1, 4)},
         "100 102 98 0 1",
         "missed 1 stale 12"},
        {"15 IDs back is late, 16 a new start",
         {undated(100), undated(85), undated(84)},
         "100 84",
         "stale 3"},
        {"15 IDs ahead an older time does not count",
         {at(100, 9), at(115, 0), at(131, -1)},
         "100 115",
         "missed 14 stale 3"},
        // 3 missed, then 9997, then none, as the sender was started again, ahead and back; 11 did not come.
        {"missed samples",
         {Cut({0xFFFFFFFE}), Cut({2}), Cut({10000}), Cut({3000000}), Cut({10}), {Frame({12}, 2)}, Cut({13})},
         "4294967294 2 10000 3000000 10 qudex:1 13",
         "given_up 1 missed 10001 lost 2"},
        {"forged frames of the future",
         {Cut({10}), {Frame({14}, 2), Frame({0x80000000}, 1)}, range(11, 16)},
         "10 qudex:1 qudex:1 11 12 13 15 16",
         "given_up 2 missed 1 lost 4 stale 3"}};
    for (const Arrivals& arrivals : cases) QudexBench{}.Expect(arrivals);
}

TEST(QudexReceiver, LatePacketsThatMakeUpNoRunOfSamplesChangeNothing) {
    const Arrivals cases[]{
        {"copies of one frame", {Packets(20, Frame({15}, 1))}, "", "stale 63"},
        {"samples of one frame that do not fit",
         {Cut({13, 1, 1}), Cut({14, 1, 1}), Cut({15, 1, 1})},
         "",
         "malformed 9 stale 3"},
        {"frames of several cuts", {Cut({13, 1}), Cut({14, 2}), Cut({15, 1})}, "", "stale 15"},
        {"the last frames of samples", {{Frame({13}, 3), Frame({14}, 3), Frame({15}, 3)}}, "", "stale 12"},
        {"several senders",
         {Cut({13, 1, 30, TIME, 1}), Cut({14, 1, 30, TIME, 2}), Cut({15, 1, 30, TIME, 3})},
         "",
         "stale 12"}};
    for (const auto& [name, strays, none, counts] : cases) {
        Arrivals arrivals{name, {Cut({16})}, "16 17", counts};
        for (int i = 0; i < 3; ++i)
            arrivals.packets.insert(arrivals.packets.end(), strays.begin(), strays.end());
        arrivals.packets.push_back(Cut({12}));  // late as well
        arrivals.packets.push_back(Cut({17}));
        QudexBench{}.Expect(arrivals);
    }
}

}  // namespace
