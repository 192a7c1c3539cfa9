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

TEST(Endpoints, RefuseWhatTheyCannotWorkWithoutInTheLogAndByException) {
    const auto rx = [](const std::string& keys) { return [keys] { TestRxLspx{keys}; }; };
    const auto tx = [](const std::string& keys) { return [keys] { TestTxLspx{keys}; }; };
    const std::pair<std::function<void()>, std::string> cases[] = {
        {rx("iface_name: lo"), "Rx::Rx: udp_cfg.udp.listen is required"},
        {[] { TestRxQudex{vosk::test::NodeOf("node: 5")["node"]}; },
         "Rx::Rx: udp_cfg.udp.listen is required"},
        {rx("listen_udp: 1, iface_name: lo, listen_ip: ''"), "Rx::Rx: udp_cfg.ip.listen is required"},
        {rx("listen_udp: 45117"), "Rx::Rx: udp_cfg.iface_name is required"},
        {rx(RX + ", num_frames: 0"), "RxQudex::RxQudex: qudex_cfg.num_frames is required"},
        {tx("udp_dest: 1"), "Tx::Tx: udp_cfg.ip.dst is required"},
        {tx("ip_dest: 127.0.0.1"), "Tx::Tx: udp_cfg.udp.dst is required"},
        {tx(TX + ", num_frames: 0"), "TxQudex::TxQudex: qudex_cfg.num_frames is required"},
        {tx(TX + ", frame_size: 0"), "TxLspx::TxLspx: lspx_cfg.frame_size is required"},
        {rx("listen_udp: 1, listen_ip: localhost"),
         "ERR: node.listen_ip: not an IPv4 address: \"localhost\""},
        {tx(TX + ", ip_src: 1.2.3.256"), "ERR: node.ip_src: not an IPv4 address: \"1.2.3.256\""},
        {rx(RX + ", qudex_topic: -1"), "ERR: node.qudex_topic must not be negative"}};
    for (const auto& [make, text] : cases) {
        const LogCapture log;
        EXPECT_EQ(vosk::test::TextOf<std::runtime_error>(make), text);
        EXPECT_TRUE(log.Has(log4cplus::ERROR_LOG_LEVEL, text)) << text;
    }
}

TEST(Endpoints, TellWithWhichSettingsALayerCouldNotBeBuilt) {
    const LogCapture log;
    EXPECT_THROW(
        TestRxLspx{"listen_ip: 203.0.113.7, listen_udp: 45117, iface_name: lo, cpu: 1, busy_poll: 50"},
        std::runtime_error);
    EXPECT_THAT(
        log.Lines().back().text,
        AllOf(StartsWith("Rx::Rx could not construct pktwire::UdpRxSocket, details = "),
              EndsWith(", m_udp_cfg.ip.listen = 203.0.113.7, m_udp_cfg.udp.listen = 45117, "
                       "m_udp_cfg.iface_name = lo, m_udp_cfg.rxbuf_size = 0, m_udp_cfg.incoming_cpu = 1, "
                       "m_udp_cfg.busy_poll = 50")));
}

TEST(RxLspx, ReadsItsKeysOverTheDefaultsAndTakesTheQudexReceiverOver) {
    std::string description;
    const TestRxLspx rx{RX + ", cpu: -1, qudex_topic: 1234, checksum_force_ignore: true, endianness: Be, "
                             "leader_extended_info_size: 4, buf_samples: 3",
                        description};
    EXPECT_EQ(description, "LSPX receiver listening on: 127.0.0.1:" + PORT + ", topic ID: 1234");
    EXPECT_EQ(rx.m_udp_cfg.incoming_cpu, std::nullopt);
    EXPECT_EQ(rx.m_udp_cfg.busy_poll, std::nullopt);
    EXPECT_EQ(rx.m_qudex_cfg.num_frames, 5);
    EXPECT_TRUE(rx.m_qudex_cfg.checksum_force_ignore);
    EXPECT_EQ(rx.m_lspx_cfg.leader_extended_info_size, 4);
    EXPECT_EQ(rx.m_lspx_cfg.data_unit_size, 4);
    EXPECT_EQ(rx.m_lspx_cfg.buf_samples, 3U);
    EXPECT_EQ(rx.m_receiver, nullptr);
    EXPECT_NE(rx.m_lspx_receiver, nullptr);
}

TEST(RxQudex, NeedsAnAddressOnlyForTheDescription) {
    const std::string no_address = "iface_name: lo, listen_udp: " + PORT;
    EXPECT_NE(TestRxQudex{Node(no_address)}.m_receiver, nullptr);
    std::string description;
    EXPECT_THROW((TestRxQudex{Node(no_address), description}), oru::configng::PliConfigNotFoundError);
    const TestRxQudex described{Node(RX), description};
    EXPECT_EQ(description, "QUDEX receiver listening on: 127.0.0.1:" + PORT + ", topic ID: 0");
}

// What a receiver, made and used as told, says at its end when these datagrams have come.
template <class Endpoint>
std::string Told(std::vector<std::string> datagrams, const std::function<std::unique_ptr<Endpoint>()>& make,
                 const std::function<std::uint64_t(Endpoint&)>& receive) {
    const LogCapture log;
    {
        pktwire::UdpTxSocket tx{vosk::test::SendingTo(vosk::test::UniquePort()), nullptr};
        const auto endpoint = make();
        for (std::string& datagram : datagrams) {
            iovec piece{datagram.data(), datagram.size()};
            mmsghdr message{};
            message.msg_hdr.msg_iov = &piece;
            message.msg_hdr.msg_iovlen = 1;
            EXPECT_FALSE(tx.Send({&message, 1}));
        }
        EXPECT_TRUE(vosk::test::Eventually([&] { return receive(*endpoint) == datagrams.size(); }));
    }
    const auto texts = log.Texts("Receiver on 127.0.0.1:" + PORT + ", topic ID: 0: ");
    return texts.empty() ? "" : texts.back();
}

TEST(Receivers, TellAtTheirEndWhatTheyMetBesidesSamples) {
    vosk::test::RecordingSocket taken;
    auto config = QudexSenderDefaults();
    config.checksum_enable = true;
    std::vector<std::byte> buffer(12);
    pktwire::qudex::Sender{config, taken, nullptr}.SendSample(buffer, {}, {});
    const std::string frame = taken.datagrams.front();
    auto flipped = frame;
    flipped.back() ^= 1;
    auto foreign = frame;
    foreign[0] = 0;
    const std::function make_qudex = [] { return std::make_unique<TestRxQudex>(Node(RX)); };
    const std::function receive_qudex = [&buffer](TestRxQudex& endpoint) {
        endpoint.m_receiver->ReceiveSample(buffer, 0s);
        return endpoint.m_receiver->GetCounters().packets;
    };
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"of wrong checksum: 1, ", {flipped}},
        {"too short: 1, ", {frame.substr(0, frame.size() - 1)}},
        {"too long: 1, ", {frame + "x"}},
        {"duplicate: 1, ", {frame, frame}},
        {"foreign: 1, ", {foreign}}};
    for (const auto& [count, datagrams] : cases)
        EXPECT_THAT(Told(datagrams, make_qudex, receive_qudex), HasSubstr(count));
    EXPECT_EQ(Told({}, make_qudex, receive_qudex), "");
    const std::function make_lspx = [] { return std::make_unique<TestRxLspx>(RX); };
    const std::function receive_lspx = [&buffer](TestRxLspx& endpoint) {
        endpoint.m_lspx_receiver->ReceiveSample({}, buffer, {}, 0s);
        return endpoint.m_lspx_receiver->GetCounters().packets;
    };
    EXPECT_THAT(Told({foreign}, make_lspx, receive_lspx), HasSubstr("foreign: 1, "));
}

TEST(TxLspx, ReadsItsKeysOverTheDefaults) {
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
}

TEST(Endpoints, FlagsAreReadInAnyCase) {
    const auto endianness = [](const std::string& text) {
        return TestTxLspx{TX + ", endianness: " + text}.m_lspx_cfg.endianness;
    };
    for (const char* text : {"be", "Be", "BE"}) EXPECT_EQ(endianness(text), 0) << text;
    for (const char* text : {"LE", "BEE", "''"}) EXPECT_EQ(endianness(text), 8) << text;
    const auto source = [](const std::string& text) {
        return TestTxLspx{TX + ", source: " + text}.m_lspx_cfg.source;
    };
    EXPECT_EQ(source("real"), 0);
    EXPECT_EQ(source("SIM"), 0x10);
}

TEST(Endpoints, PeerThatIsNotThereIsNoFailure) {
    EXPECT_TRUE(IsSent({}));
    EXPECT_TRUE(IsSent({111, std::system_category()}));
    EXPECT_FALSE(IsSent({101, std::system_category()}));
    EXPECT_FALSE(IsSent(std::make_error_code(std::errc::message_size)));
}

}  // namespace
}  // namespace vosk::lumo
