#include "qudexBench.hpp"

#include <pktwire/lspx.hpp>

#include <vosk/test/allocationCount.hpp>
#include <vosk/test/loopback.hpp>
#include <vosk/test/support.hpp>

using namespace pktwire;
using namespace pktwire::test;
using namespace testing;

namespace {

constexpr std::chrono::nanoseconds LONG = 30s;

using namespace vosk::test;

TEST(Ipv4, ReadsDottedTextOnly) {
    EXPECT_EQ(std::string(Ipv4{}), "");
    EXPECT_EQ(std::string(Ipv4{""}), "");
    EXPECT_EQ(std::string(Ipv4{"239.1.2.3"}), "239.1.2.3");
    EXPECT_EQ(std::string(Ipv4{"0.0.0.0"}), "0.0.0.0");
    EXPECT_TRUE(Ipv4{"239.1.2.3"}.IsMulticast() && !Ipv4{"127.0.0.1"}.IsMulticast() && !Ipv4{}.IsMulticast());
    for (const char* text : {"localhost", "1.2.3", "1.2.3.256", " 1.2.3.4", "1.2.3.4/8", "::1"}) {
        EXPECT_THAT([text] { Ipv4{text}; }, ThrowsMessage<std::runtime_error>(HasSubstr(text)));
    }
}

TEST(UdpRxSocket, SaysWhatCannotWork) {
    const UdpRxSocket first{Listening(), nullptr};
    auto taken = Listening();
    taken.udp.listen = first.LocalPort();
    EXPECT_THAT(
        [&] { UdpRxSocket(taken, nullptr); },
        ThrowsMessage<std::runtime_error>(HasSubstr("127.0.0.1:" + std::to_string(first.LocalPort()))));
    auto elsewhere = Listening();
    elsewhere.iface_name = "nosuchif0";
    EXPECT_THAT([&] { UdpRxSocket(elsewhere, nullptr); },
                ThrowsMessage<std::runtime_error>(HasSubstr("nosuchif0")));
    auto foreign = Listening();
    foreign.ip.listen = Ipv4{"192.0.2.77"};
    EXPECT_THROW(UdpRxSocket(foreign, nullptr), std::runtime_error);
    EXPECT_THROW(UdpTxSocket(SendingTo(0), nullptr), std::runtime_error);
    EXPECT_THROW(UdpTxSocket({}, nullptr), std::runtime_error);
}

TEST(UdpRxSocket, GrantsTheBufferAskedForAsFarAsTheSystemLets) {
    auto config = Listening();
    config.rxbuf_size = 1 << 20;
    config.busy_poll = 50;
    config.incoming_cpu = 0;
    EXPECT_GE(UdpRxSocket(config, nullptr).GrantedBuffer(), 1U << 18U);
    config.rxbuf_size = ~std::uint64_t{0};
    EXPECT_GT(UdpRxSocket(config, nullptr).GrantedBuffer(), 0U);
}

TEST(UdpRxSocket, TellsHowManyPacketsTheKernelDropped) {
    auto config = Listening();
    config.rxbuf_size = 1;  // the system's smallest
    UdpRxSocket rx{config, nullptr};
    qudex::Receiver receiver{ReceiverConfig(1), rx, nullptr};
    UdpTxSocket tx{SendingTo(rx.LocalPort()), nullptr};
    qudex::Sender sender{SenderConfig(1), tx, nullptr};
    std::array<std::byte, 1000> sample{};
    for (int run = 0; run < 2; ++run) {
        receiver.Restart();
        for (unsigned i = 0; i < 100; ++i) EXPECT_FALSE(sender.SendSample(sample, {}, {}));
        std::uint64_t received = 0;
        while (!receiver.ReceiveSample(sample, 0ns).first) ++received;
        EXPECT_LT(received, 100U);
        EXPECT_EQ(received + receiver.GetCounters().dropped, 100U);
    }
}

TEST(UdpRxSocket, WaitsNoLongerThanToldAndEndsAtOnceWhenAPacketComes) {
    for (auto spin_time : {0ns, std::chrono::nanoseconds{1ms}}) {
        auto config = Listening();
        config.spin_time = spin_time;
        UdpRxSocket rx{config, nullptr};
        EXPECT_EQ(rx.WaitReadable(2ms), std::errc::timed_out);
        UdpTxSocket tx{SendingTo(rx.LocalPort()), nullptr};
        qudex::Sender sender{SenderConfig(1), tx, nullptr};
        ASSERT_FALSE(sender.SendSample({}, {}, {}));
        EXPECT_FALSE(rx.WaitReadable(LONG));
    }
}

TEST(UdpTxSocket, TellsOfARefusalAndReachesAPeerThatComesBack) {
    auto listening = Listening();
    {
        const UdpRxSocket gone{listening, nullptr};
        listening.udp.listen = gone.LocalPort();
    }
    UdpTxSocket tx{SendingTo(listening.udp.listen), nullptr};
    qudex::Sender sender{SenderConfig(1), tx, nullptr};
    const std::array<std::byte, 8> sample{};
    EXPECT_FALSE(sender.SendSample(sample, TIME, {}));
    EXPECT_EQ(sender.SendSample(sample, TIME, {}).value(), 111);

    UdpRxSocket rx{listening, nullptr};
    qudex::Receiver receiver{ReceiverConfig(1), rx, nullptr};
    EXPECT_EQ(sender.SendSample(sample, TIME, {}).value(),
              111);  // hears of the one before, and sends this one
    std::array<std::byte, 8> buffer{};
    auto [error, handle] = receiver.ReceiveSample(buffer, LONG);
    ASSERT_FALSE(error);
    EXPECT_EQ(handle->first->SampleId(), 2U);
}

TEST(UdpSockets, CarrySamplesOverMulticastWithAllSettings) {
    auto listening = Listening();
    listening.ip.listen = Ipv4{"239.255.77.1"};
    UdpRxSocket rx{listening, nullptr};
    listening.udp.listen = rx.LocalPort();
    UdpRxSocket second{listening, nullptr};
    auto sending = SendingTo(rx.LocalPort());
    sending.ip.dst = Ipv4{"239.255.77.1"};
    sending.ip.src = Ipv4{"127.0.0.1"};
    sending.ip.time_to_live = 3;
    sending.udp.checksum_enable = true;
    sending.txbuf_size = 1 << 18;
    UdpTxSocket tx{sending, nullptr};
    auto sharing = sending;
    sharing.udp.src = tx.LocalPort();
    const UdpTxSocket shares_port{sharing, nullptr};
    EXPECT_EQ(shares_port.LocalPort(), tx.LocalPort());

    qudex::Sender sender{SenderConfig(3), tx, nullptr};
    sender.SetSampleId(5);
    std::array<std::byte, 100> sample{};
    sample.fill(std::byte{0x5A});
    ASSERT_FALSE(sender.SendSample(sample, TIME, {}));
    for (UdpRxSocket* socket : {&rx, &second}) {
        qudex::Receiver receiver{ReceiverConfig(3), *socket, nullptr};
        std::array<std::byte, 100> buffer{};
        EXPECT_FALSE(receiver.ReceiveSample(buffer, LONG).first);
        EXPECT_EQ(buffer, sample);
    }
}

TEST(LspxOverUdp, CameraFramesCrossWithoutACopyOrAnAllocation) {
    constexpr std::uint32_t units = 783360;
    auto listening = Listening();
    listening.rxbuf_size = 64U << 20U;
    UdpRxSocket rx{listening, nullptr};
    if (rx.GrantedBuffer() < (16U << 20U)) GTEST_SKIP() << "the system grants no buffer for a whole frame";
    lspx::Receiver receiver{
        {.endianness = 8, .leader_extended_info_size = 8, .data_unit_size = 2},
        {new qudex::Receiver{ReceiverConfig(206), rx, nullptr}, std::default_delete<qudex::Receiver>{}},
        nullptr};
    Bytes payload(units * 2UL);
    std::array<std::byte, 8> info{};

    UdpTxSocket tx{SendingTo(rx.LocalPort()), nullptr};
    qudex::Sender qudex_sender{SenderConfig(206), tx, nullptr};
    lspx::Sender sender{{.endianness = 8, .leader_extended_info_size = 8, .frame_size = units}, qudex_sender};
    const Bytes frame = Counting(payload.size());
    const std::array<std::byte, 8> stamp{};
    const std::size_t before = vosk::test::AllocationsOfThisThread();
    for (unsigned id = 0; id < 40; ++id) {
        sender.SetSampleId(id);
        ASSERT_FALSE(sender.SendSample(stamp, frame, {}, TIME, {}, {}));
        auto [error, sample] = receiver.ReceiveSample(info, payload, {}, LONG);
        ASSERT_FALSE(error) << error.message();
        ASSERT_EQ(sample.leader->SampleId(), id);
    }
    EXPECT_EQ(vosk::test::AllocationsOfThisThread(), before);
    EXPECT_EQ(receiver.GetCounters().copied, 0U);
    EXPECT_TRUE(payload == frame);
}

}  // namespace
