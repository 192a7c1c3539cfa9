#include "bench.hpp"

#include <vosk/test/loopback.hpp>

using namespace pktwire;
using namespace pktwire::test;
using namespace testing;
using namespace vosk::test;

namespace {

constexpr std::chrono::nanoseconds LONG = 30s;

// Both ends of a QUDEX stream over UDP.
struct Link {
    explicit Link(const UdpRxSocket::Config& listening)
        : rx{listening, nullptr},
          tx{SendingTo(rx.LocalPort()), nullptr},
          sender{SenderConfig(1), tx, nullptr} {}

    UdpRxSocket rx;
    UdpTxSocket tx;
    qudex::Sender sender;
};

TEST(UdpRxSocket, NamesASettingThatCannotWork) {
    const UdpRxSocket first{Listening(), nullptr};
    const auto expect_fault = [](const std::string& named, const UdpRxSocket::Config& config) {
        EXPECT_THAT(TextOf<std::runtime_error>([&] { return UdpRxSocket(config, nullptr).LocalPort(); }),
                    HasSubstr(named));
    };
    expect_fault("127.0.0.1:" + std::to_string(first.LocalPort()), Listening(first.LocalPort()));
    auto config = Listening();
    config.iface_name = "nosuchif0";
    expect_fault("nosuchif0", config);
    config = Listening();
    config.ip.listen = Ipv4{"192.0.2.77"};
    expect_fault("192.0.2.77", config);
    EXPECT_THROW(UdpTxSocket(SendingTo(0), nullptr), std::runtime_error);
    for (const char* text : {"localhost", "1.2.3", "1.2.3.256", " 1.2.3.4", "1.2.3.4/8", "::1"})
        EXPECT_THAT(TextOf<std::runtime_error>([text] { return Ipv4{text}; }), HasSubstr(text));
}

TEST(UdpRxSocket, CountsThePacketsThatTheKernelDropped) {
    auto config = Listening();
    config.rxbuf_size = 1;  // the system's smallest
    Link link{config};
    qudex::Receiver receiver{ReceiverConfig(1), link.rx, nullptr};
    std::array<std::byte, 1000> sample{};
    for (int run = 0; run < 2; ++run) {
        receiver.Restart();
        for (unsigned i = 0; i < 100; ++i) EXPECT_FALSE(link.sender.SendSample(sample, {}, {}));
        std::uint64_t received = 0;
        while (!receiver.ReceiveSample(sample, 0ns).first) ++received;
        EXPECT_LT(received, 100U);
        EXPECT_EQ(received + receiver.GetCounters().dropped, 100U);
    }
}

TEST(UdpRxSocket, WaitsForAPacketUntilTheTimeIsOver) {
    for (auto spin_time : {0ns, std::chrono::nanoseconds{1ms}}) {
        auto config = Listening();
        config.spin_time = spin_time;
        Link link{config};
        EXPECT_EQ(link.rx.WaitReadable(2ms), std::errc::timed_out);
        ASSERT_FALSE(link.sender.SendSample({}, {}, {}));
        EXPECT_FALSE(link.rx.WaitReadable(LONG));
    }
}

TEST(UdpTxSocket, ReportsARefusalAndReachesAPeerThatComesBack) {
    auto rx = std::make_unique<UdpRxSocket>(Listening(), nullptr);
    const auto listening = Listening(rx->LocalPort());
    UdpTxSocket tx{SendingTo(rx->LocalPort()), nullptr};
    rx.reset();
    qudex::Sender sender{SenderConfig(1), tx, nullptr};
    std::array<std::byte, 8> sample{};
    EXPECT_TRUE(vosk::test::Eventually([&] { return sender.SendSample(sample, TIME, {}).value() == 111; }));
    rx = std::make_unique<UdpRxSocket>(listening, nullptr);
    // Hears of the one before, maybe, and sends this one.
    sender.SendSample(sample, TIME, {});
    qudex::Receiver receiver{ReceiverConfig(1), *rx, nullptr};
    EXPECT_FALSE(receiver.ReceiveSample(sample, LONG).first);
}

TEST(UdpSockets, CarrySamplesOverMulticastWithAllSettings) {
    auto listening = Listening();
    listening.ip.listen = Ipv4{"239.255.77.1"};
    listening.busy_poll = 50;
    listening.incoming_cpu = 0;
    listening.rxbuf_size = ~std::uint64_t{0};
    UdpRxSocket first{listening, nullptr};
    listening.udp.listen = first.LocalPort();
    UdpRxSocket second{listening, nullptr};
    auto sending = SendingTo(first.LocalPort());
    sending.ip.dst = *listening.ip.listen;
    sending.ip.src = Ipv4{"127.0.0.1"};
    sending.ip.time_to_live = 3;
    sending.udp.checksum_enable = true;
    sending.txbuf_size = 1 << 18;
    UdpTxSocket tx{sending, nullptr};
    sending.udp.src = tx.LocalPort();
    EXPECT_EQ(UdpTxSocket(sending, nullptr).LocalPort(), tx.LocalPort());
    const Bytes sample = Counting(100);
    ASSERT_FALSE((qudex::Sender{SenderConfig(3), tx, nullptr}.SendSample(sample, TIME, {})));
    for (UdpRxSocket* socket : {&first, &second}) {
        qudex::Receiver receiver{ReceiverConfig(3), *socket, nullptr};
        Bytes buffer(100);
        EXPECT_FALSE(receiver.ReceiveSample(buffer, LONG).first);
        EXPECT_EQ(buffer, sample);
    }
}

}  // namespace
