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
    Packets bad{FromHex("51"),
                {},
                Bytes(good[1].begin(), good[1].end() - 1),
                good[1] + FromHex("00"),
                Counting(9000)};
    for (const auto& [offset, value] : {std::pair{0, 0}, {4, 2}, {27, 9}, {21, 0}, {21, 4}, {23, 2}})
        bad.push_back(With(good[1], static_cast<std::size_t>(offset), static_cast<unsigned>(value)));
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
                           {"begun late", {placed(8, {1, 11, 20})}, "qudex:4", " stale 2"},
                           {"ended early", {SizeUntold(Cut({3, 3, 29}))}, "qudex:2", ""}};
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
    bench.socket.Put({Cut({1})[0]});
    for (unsigned id = 2; id < 100; ++id) bench.socket.Put(Cut({id, 4}));
    EXPECT_EQ(bench.Receive(), qudex::RxErrc::sample_given_up);
    EXPECT_EQ(bench.Receive(), qudex::RxErrc::frame_count);
}

TEST(QudexReceiver, StraysThatNoSampleCanHoldCostNothing) {
    const Packets good = Cut({10, 6, 60});
    const Packets strays{Cut({100, 1, 1})[0],  SizeUntold(Cut({101, 1, 1}))[0],
                         Cut({102, 1, 61})[0], SizeUntold(Cut({103, 1, 61}))[0],
                         Cut({104, 7, 60})[1], With(SizeUntold(Cut({300, 6, 60}))[2], 31, 51)};
    Arrivals arrivals{"", {}, "10", "malformed 30"};
    for (const Bytes& frame : good) {
        if (!arrivals.packets.empty()) arrivals.packets.push_back(strays);
        arrivals.packets.push_back({frame});
    }
    QudexBench{6, 60}.Expect(arrivals);
}

TEST(QudexReceiver, LateAndForgedPacketsCostNoSampleButTheirOwn) {
    for (const auto& [name, packets, received, counts] : std::initializer_list<std::array<const char*, 4>>{
             {"replays, a clock set back, a sender restarted with an older clock",
              "100@100 60@50 61@50 1100@50 101@101 61@50 62@50 1101@50 102@102 62@50 63@50 1102@50 "
              "103@103 63@50 64@50 1103@50 104@90 1@1 2@2 3@3 4@4 5@5",
              "100 101 102 103 104 4 5", "stale 45"},
             {"a forged sample that makes three late; 10 was delivered, and stays over",
              "10 26@1000 11 10 12 10 13 10 14 10 15 10 16 10 17 10", "10 26 14 15 16 17",
              "missed 15 stale 30"},
             {"two senders",
              "1/5.1 1/6.2 1/6.1 1/5.3 1/6.3 1/5.2 2/5.1 2/6.2 2/6.1 2/5.3 2/6.3 2/5.2 "
              "3/5.1 3/6.2 3/6.1 3/5.3 3/6.3 3/5.2",
              "1 2 3", "foreign 9 reordered 3"},
             {"two ways, so that each comes twice", "4 1 5 2 6 3 7 4 8 5 9 6 10 7 11 8 12 9 13 10",
              "4 5 6 7 8 9 10 11 12 13", "stale 30"},
             {"a clock that is behind, and samples in large steps, which make no run; one is lost on the way",
              "1000@3600 2020 2040 2060 2080 2100 2120 2140 2160 2180 2200 2220 2240 2260 2280 2300 2320 "
              "2340 "
              "2360",
              "1000 qudex:1 2360", "given_up 1 lost 1 stale 49"},
             {"late, twice, new starts by time and by ID",
              "100@0 99@-1 100@0 102@2 101@1 98@3 0@ 4294967295@ 1@4", "100 102 98 0 1", "missed 1 stale 12"},
             {"15 IDs back is late, 16 a new start", "100@ 85@ 84@", "100 84", "stale 3"},
             {"15 IDs ahead an older time does not count", "100@9 115@0 131@-1", "100 115",
              "missed 14 stale 3"},
             {"3 missed, 9997, none as the sender was started again, ahead and back; 11 did not come",
              "4294967294 2 10000 3000000 10 12.2 13", "4294967294 2 10000 3000000 10 qudex:1 13",
              "given_up 1 missed 10001 lost 2"},
             {"forged frames of the future", "10 14.2 2147483648.1 11 12 13 14 15 16",
              "10 qudex:1 qudex:1 11 12 13 15 16", "given_up 2 missed 1 lost 4 stale 3"}})
        QudexBench{}.Expect({name, {PacketsOf(packets)}, received, counts});
}

TEST(QudexReceiver, LatePacketsThatMakeUpNoRunOfSamplesChangeNothing) {
    const std::tuple<const char*, Packets, const char*> cases[]{
        {"copies of one frame", Packets(20, Cut({15})[0]), "stale 63"},
        {"samples of one frame that do not fit",
         {Cut({13, 1, 1})[0], Cut({14, 1, 1})[0], Cut({15, 1, 1})[0]},
         "malformed 9 stale 3"},
        {"frames of several cuts",
         {Cut({13, 1})[0], Cut({14, 2})[0], Cut({14, 2})[1], Cut({15, 1})[0]},
         "stale 15"},
        {"the last frames of samples", PacketsOf("13.3 14.3 15.3"), "stale 12"},
        {"first frames, and the last ones twice", PacketsOf("13.1 13.3 13.3 14.1 14.3 14.3 15.1 15.3 15.3"),
         "stale 30"},
        {"several senders", PacketsOf("13/1 14/2 15/3"), "stale 30"}};
    for (const auto& [name, strays, counts] : cases)
        QudexBench{}.Expect(
            {name, {PacketsOf("16"), strays, strays, strays, PacketsOf("12 17")}, "16 17", counts});
}

}  // namespace
