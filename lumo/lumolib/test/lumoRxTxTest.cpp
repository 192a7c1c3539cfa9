#include <lumolib/lumoRxTx.hpp>

#include <vosk/test/logCapture.hpp>
#include <vosk/test/loopback.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/recordingSocket.hpp>
#include <vosk/test/support.hpp>

using namespace std::chrono_literals;
using namespace testing;
using vosk::test::LogCapture;

namespace vosk::lumo {
namespace {

const std::string PORT = std::to_string(vosk::test::UniquePort());
const std::string RX = "listen_ip: 127.0.0.1, iface_name: lo, listen_udp: " + PORT;
const std::string TX = "ip_dest: 127.0.0.1, udp_dest: " + PORT;

oru::configng::PliConfigInstanceNode Node(const std::string& keys) {
    return vosk::test::NodeOf("node: {" + keys + "}")["node"];
}

struct TestRxLspx : RxLspx {
    explicit TestRxLspx(const std::string& keys, DescriptionRef description = std::nullopt)
        : RxLspx{Node(keys),        {},
                 {.num_frames = 5}, {.endianness = 8, .data_unit_size = 4, .buf_samples = 2},
                 nullptr,           description} {}
    using RxLspx::m_lspx_cfg;
    using RxLspx::m_lspx_receiver;
    using RxLspx::m_qudex_cfg;
    using RxLspx::m_receiver;
    using RxLspx::m_udp_cfg;
};

struct TestRxQudex : RxQudex {
    explicit TestRxQudex(const oru::configng::PliConfigInstanceNode& node,
                         DescriptionRef description = std::nullopt)
        : RxQudex{node, {}, {.num_frames = 3}, nullptr, description} {}
    using RxQudex::m_receiver;
};

pktwire::qudex::Sender::Config QudexSenderDefaults() {
    pktwire::qudex::Sender::Config cfg;
    cfg.num_frames = 3;
    return cfg;
}

struct TestTxLspx : TxLspx {
    explicit TestTxLspx(const std::string& keys, DescriptionRef description = std::nullopt)
        : TxLspx{Node(keys),
                 {},
                 QudexSenderDefaults(),
                 {.source = 0x10, .endianness = 8, .frame_size = 2},
                 nullptr,
                 description} {}
    using TxLspx::m_lspx_cfg;
    using TxLspx::m_qudex_cfg;
    using TxLspx::m_udp_cfg;
};

TEST(Endpoints, RefuseWhatTheyCannotWorkWithout) {
    const auto rx = [](const std::string& keys) { return [keys] { TestRxLspx{keys}; }; };
    const auto tx = [](const std::string& keys) { return [keys] { TestTxLspx{keys}; }; };
    const std::pair<std::function<void()>, std::string> cases[] = {
        {rx("iface_name: lo"), "udp_cfg.udp.listen is required"},
        {[] { TestRxQudex{vosk::test::NodeOf("node: 5")["node"]}; }, "udp_cfg.udp.listen is required"},
        {rx("listen_udp: 1, iface_name: lo, listen_ip: ''"), "udp_cfg.ip.listen is required"},
        {rx("listen_udp: 45117"), "udp_cfg.iface_name is required"},
        {rx(RX + ", num_frames: 0"), "qudex_cfg.num_frames is required"},
        {tx("udp_dest: 1"), "udp_cfg.ip.dst is required"},
        {tx("ip_dest: 127.0.0.1"), "udp_cfg.udp.dst is required"},
        {tx(TX + ", num_frames: 0"), "qudex_cfg.num_frames is required"},
        {tx(TX + ", frame_size: 0"), "lspx_cfg.frame_size is required"},
        {rx("listen_udp: 1, listen_ip: localhost"), "node.listen_ip: not an IPv4 address: \"localhost\""},
        {tx(TX + ", ip_src: 1.2.3.256"), "node.ip_src: not an IPv4 address: \"1.2.3.256\""},
        {rx(RX + ", qudex_topic: -1"), "node.qudex_topic must not be negative"}};
    for (const auto& [make, text] : cases) {
        const LogCapture log;
        const std::string refusal = vosk::test::TextOf<std::runtime_error>(make);
        EXPECT_THAT(log.Texts(text, log4cplus::ERROR_LOG_LEVEL), SizeIs(1)) << refusal;
    }
}

TEST(Endpoints, ReadTheKeysOfAReceiverOverTheDefaults) {
    std::string description;
    const TestRxLspx rx{RX + ", cpu: -1, qudex_topic: 1234, checksum_force_ignore: true, endianness: Be, "
                             "leader_extended_info_size: 4, buf_samples: 3",
                        description};
    EXPECT_EQ(description, "LSPX receiver listening on: 127.0.0.1:" + PORT + ", topic ID: 1234");
    EXPECT_FALSE(rx.m_udp_cfg.incoming_cpu || rx.m_udp_cfg.busy_poll);
    EXPECT_TRUE(rx.m_qudex_cfg.checksum_force_ignore);
    EXPECT_EQ(rx.m_qudex_cfg.num_frames, 5);
    EXPECT_EQ(rx.m_lspx_cfg.leader_extended_info_size, 4);
    EXPECT_EQ(rx.m_lspx_cfg.buf_samples, 3U);
    EXPECT_EQ(rx.m_receiver, nullptr);  // the LSPX receiver has taken it over
}

TEST(Endpoints, ReadTheKeysOfASenderOverTheDefaults) {
    std::string description;
    const TestTxLspx tx{TX + ", ip_time_to_live: 3, udp_checksum_enable: true, qudex_topic: 7, "
                             "component_id: 9, frame_size: 4866, trailer_extended_info_size: 2",
                        description};
    EXPECT_EQ(description, "LSPX sender to: 127.0.0.1:" + PORT + ", topic ID: 7");
    EXPECT_EQ(tx.m_udp_cfg.ip.time_to_live, 3);
    EXPECT_TRUE(tx.m_udp_cfg.udp.checksum_enable);
    EXPECT_EQ(tx.m_qudex_cfg.component_id, 9);
    EXPECT_EQ(tx.m_lspx_cfg.frame_size, 4866U);
    EXPECT_EQ(tx.m_lspx_cfg.trailer_extended_info_size, 2);
    EXPECT_EQ(tx.m_lspx_cfg.source, 0x10);

    // An address is needed only for the description.
    const auto no_address = Node("iface_name: lo, listen_udp: " + PORT);
    EXPECT_NE(TestRxQudex{no_address}.m_receiver, nullptr);
    EXPECT_THROW((TestRxQudex{no_address, description}), oru::configng::PliConfigNotFoundError);
}

TEST(Endpoints, ReadFlagsInAnyCase) {
    for (const auto& [text, flag] :
         {std::pair{"be", 0}, {"Be", 0}, {"BE", 0}, {"LE", 8}, {"BEE", 8}, {"''", 8}})
        EXPECT_EQ((TestTxLspx{TX + ", endianness: " + text}.m_lspx_cfg.endianness), flag) << text;
    for (const auto& [text, flag] : {std::pair{"real", 0}, {"SIM", 0x10}})
        EXPECT_EQ((TestTxLspx{TX + ", source: " + text}.m_lspx_cfg.source), flag) << text;
}

void SendAll(std::vector<std::string>& datagrams) {
    pktwire::UdpTxSocket tx{vosk::test::SendingTo(vosk::test::UniquePort()), nullptr};
    for (std::string& datagram : datagrams) {
        iovec piece{datagram.data(), datagram.size()};
        mmsghdr message{};
        message.msg_hdr.msg_iov = &piece;
        message.msg_hdr.msg_iovlen = 1;
        EXPECT_FALSE(tx.Send({&message, 1}));
    }
}

TEST(Receivers, LogAtTheirEndWhatTheyMetBesidesSamples) {
    vosk::test::RecordingSocket taken;
    auto config = QudexSenderDefaults();
    config.checksum_enable = true;
    std::vector<std::byte> buffer(12);
    pktwire::qudex::Sender{config, taken, nullptr}.SendSample(buffer, {}, {});
    const std::string packet = taken.datagrams.front();
    auto flipped = packet;
    flipped.back() ^= 1;
    auto foreign = packet;
    foreign[0] = 0;
    std::pair<std::string, std::vector<std::string>> cases[] = {
        {"of wrong checksum: 1, ", {flipped}}, {"too short: 1, ", {packet.substr(0, packet.size() - 1)}},
        {"too long: 1, ", {packet + "x"}},     {"duplicate: 1, ", {packet, packet}},
        {"foreign: 1, ", {foreign}},           {"", {}}};
    const std::string prefix = "Receiver on 127.0.0.1:" + PORT + ", topic ID: 0: ";
    for (auto& [count, datagrams] : cases) {
        const LogCapture log;
        {
            const TestRxQudex rx{Node(RX)};
            SendAll(datagrams);
            EXPECT_TRUE(vosk::test::Eventually([&] {
                rx.m_receiver->ReceiveSample(buffer, 0s);
                return rx.m_receiver->GetCounters().packets == datagrams.size();
            }));
        }
        EXPECT_EQ(log.Texts(prefix).size(), datagrams.empty() ? 0U : 1U);
        EXPECT_EQ(log.Texts(count).empty(), datagrams.empty()) << count;
    }
    const LogCapture log;
    {
        const TestRxLspx rx{RX};
        SendAll(cases[4].second);
        EXPECT_TRUE(vosk::test::Eventually([&] {
            rx.m_lspx_receiver->ReceiveSample({}, buffer, {}, 0s);
            return rx.m_lspx_receiver->GetCounters().packets == 1;
        }));
    }
    EXPECT_THAT(log.Texts(prefix), ElementsAre(HasSubstr("foreign: 1, ")));
}

TEST(Endpoints, PeerThatIsNotThereIsNoFailure) {
    EXPECT_TRUE(IsSent({}));
    EXPECT_TRUE(IsSent({111, std::system_category()}));
    EXPECT_FALSE(IsSent({101, std::system_category()}));
    EXPECT_FALSE(IsSent(std::make_error_code(std::errc::message_size)));
}

}  // namespace
}  // namespace vosk::lumo
