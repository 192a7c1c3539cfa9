#include <lumolib/lumoRxTx.hpp>

#include <gtest/gtest.h>
#include <oru/configng/pliConfigDocument.hpp>
#include <vosk/common/testing/logCapture.hpp>

#include <algorithm>
#include <array>
#include <functional>
#include <stdexcept>
#include <string>

using namespace std::chrono_literals;

namespace vosk::lumo {
namespace {

using log4cplus::ERROR_LOG_LEVEL;
using oru::configng::PliConfigInstanceNode;

const std::string RX = "listen_ip: 127.0.0.1, listen_udp: 45117, iface_name: lo";
const std::string TX = "ip_dest: 127.0.0.1, udp_dest: 45118";

PliConfigInstanceNode Node(const std::string& keys) {
    return oru::configng::PliConfigDocument::FromText("node: {" + keys + "}", "test").Instances()["node"];
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
    explicit TestRxQudex(const PliConfigInstanceNode& node, DescriptionRef description = std::nullopt)
        : RxQudex{node, {}, {.num_frames = 3}, nullptr, description} {}
    using RxQudex::m_receiver;
};

pktwire::qudex::Sender::Config QudexSenderDefaults() {
    pktwire::qudex::Sender::Config cfg;
    cfg.num_frames = 3;
    return cfg;
}

pktwire::lspx::Sender::Config LspxSenderDefaults() {
    pktwire::lspx::Sender::Config cfg;
    cfg.source = 0x10;
    cfg.endianness = 8;
    cfg.frame_size = 2;
    return cfg;
}

struct TestTxLspx : TxLspx {
    explicit TestTxLspx(const std::string& keys, DescriptionRef description = std::nullopt)
        : TxLspx{Node(keys), {}, QudexSenderDefaults(), LspxSenderDefaults(), nullptr, description} {}
    using TxLspx::m_lspx_cfg;
    using TxLspx::m_qudex_cfg;
    using TxLspx::m_udp_cfg;
};

// Both the log line and the exception say the same.
void ExpectRefused(const std::function<void()>& make, const std::string& text) {
    common::LogCapture capture;
    try {
        make();
        FAIL() << "not refused: " << text;
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), text);
    }
    EXPECT_TRUE(capture.Has(ERROR_LOG_LEVEL, text));
}

TEST(Endpoints, RefuseWhatTheyCannotWorkWithout) {
    const auto rx = [](const std::string& keys) { return [keys] { TestRxLspx{keys}; }; };
    const auto tx = [](const std::string& keys) { return [keys] { TestTxLspx{keys}; }; };
    ExpectRefused(rx("iface_name: lo"), "Rx::Rx: udp_cfg.udp.listen is required");
    ExpectRefused(rx("listen_udp: 1, iface_name: lo, listen_ip: ''"),
                  "Rx::Rx: udp_cfg.ip.listen is required");
    ExpectRefused(rx("listen_udp: 45117"), "Rx::Rx: udp_cfg.iface_name is required");
    ExpectRefused(rx(RX + ", num_frames: 0"), "RxQudex::RxQudex: qudex_cfg.num_frames is required");
    ExpectRefused(tx("udp_dest: 1"), "Tx::Tx: udp_cfg.ip.dst is required");
    ExpectRefused(tx("ip_dest: 127.0.0.1"), "Tx::Tx: udp_cfg.udp.dst is required");
    ExpectRefused(tx(TX + ", num_frames: 0"), "TxQudex::TxQudex: qudex_cfg.num_frames is required");
    ExpectRefused(tx(TX + ", frame_size: 0"), "TxLspx::TxLspx: lspx_cfg.frame_size is required");
    ExpectRefused(rx("listen_udp: 1, listen_ip: localhost"),
                  "ERR: node.listen_ip: not an IPv4 address: \"localhost\"");
    ExpectRefused(tx("ip_dest: 1.2.3"), "ERR: node.ip_dest: not an IPv4 address: \"1.2.3\"");
    ExpectRefused(tx(TX + ", ip_src: 1.2.3.256"), "ERR: node.ip_src: not an IPv4 address: \"1.2.3.256\"");
    ExpectRefused(rx(RX + ", qudex_topic: -1"), "ERR: node.qudex_topic must not be negative");
}

TEST(Endpoints, NodeThatIsNoMapSetsNothing) {
    const auto scalar = oru::configng::PliConfigDocument::FromText("node: 5", "test").Instances()["node"];
    ExpectRefused([&scalar] { TestRxQudex{scalar}; }, "Rx::Rx: udp_cfg.udp.listen is required");
}

TEST(Endpoints, TellWithWhichSettingsALayerCouldNotBeBuilt) {
    common::LogCapture capture;
    EXPECT_THROW(
        TestRxLspx{"listen_ip: 203.0.113.7, listen_udp: 45117, iface_name: lo, cpu: 1, busy_poll: 50"},
        std::runtime_error);
    const auto lines = capture.Lines();
    const auto line = std::find_if(lines.begin(), lines.end(), [](const auto& l) {
        return l.level == ERROR_LOG_LEVEL &&
               l.text.starts_with("Rx::Rx could not construct pktwire::UdpRxSocket, details = ");
    });
    ASSERT_NE(line, lines.end());
    EXPECT_TRUE(line->text.ends_with(
        ", m_udp_cfg.ip.listen = 203.0.113.7, m_udp_cfg.udp.listen = 45117, m_udp_cfg.iface_name = lo, "
        "m_udp_cfg.rxbuf_size = 0, m_udp_cfg.incoming_cpu = 1, m_udp_cfg.busy_poll = 50"))
        << line->text;
}

TEST(RxLspx, ReadsItsKeysOverTheDefaultsAndTakesTheQudexReceiverOver) {
    std::string description;
    const TestRxLspx rx{RX + ", cpu: -1, qudex_topic: 1234, checksum_force_ignore: true, endianness: Be, "
                             "leader_extended_info_size: 4, buf_samples: 3",
                        description};
    EXPECT_EQ(description, "LSPX receiver listening on: 127.0.0.1:45117, topic ID: 1234");
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
    const std::string no_address = "listen_udp: 45117, iface_name: lo";
    EXPECT_NE(TestRxQudex{Node(no_address)}.m_receiver, nullptr);
    std::string description;
    EXPECT_THROW((TestRxQudex{Node(no_address), description}), oru::configng::PliConfigNotFoundError);
    const TestRxQudex described{Node(RX), description};
    EXPECT_EQ(description, "QUDEX receiver listening on: 127.0.0.1:45117, topic ID: 0");
}

TEST(Receivers, TellAtTheirEndWhatTheyMetBesidesSamples) {
    common::LogCapture capture;
    const auto told = [&capture] {
        const auto lines = capture.Lines();
        return std::count_if(lines.begin(), lines.end(), [](const auto& line) {
            return line.level == log4cplus::INFO_LOG_LEVEL &&
                   line.text.starts_with("Receiver on 127.0.0.1:45117, topic ID: 0: 1 packets, 0 samples;") &&
                   line.text.find("foreign: 1, ") != std::string::npos;
        });
    };
    TestTxLspx tx{"ip_dest: 127.0.0.1, udp_dest: 45117, qudex_topic: 5"};
    std::array<std::byte, 8> buffer{};
    {
        TestRxQudex rx{Node(RX)};
        std::array<gsl::span<const std::byte>, 1> headroom{};
        ASSERT_FALSE(tx.QudexSender().SendPacket({headroom, 1}, {}, {}));
        while (rx.m_receiver->GetCounters().packets == 0) rx.m_receiver->ReceiveSample(buffer, 1s);
    }
    EXPECT_EQ(told(), 1);
    {
        TestRxLspx rx{RX};
        std::array<gsl::span<const std::byte>, 1> headroom{};
        ASSERT_FALSE(tx.QudexSender().SendPacket({headroom, 1}, {}, {}));
        while (rx.m_lspx_receiver->GetCounters().packets == 0) {
            rx.m_lspx_receiver->ReceiveSample({}, buffer, {}, 1s);
        }
    }
    EXPECT_EQ(told(), 2);
    const std::size_t lines = capture.Lines().size();
    { const TestRxQudex quiet{Node(RX)}; }
    EXPECT_EQ(capture.Lines().size(), lines);
}

TEST(TxLspx, ReadsItsKeysOverTheDefaults) {
    std::string description;
    const TestTxLspx tx{TX + ", ip_time_to_live: 3, udp_checksum_enable: true, qudex_topic: 7, "
                             "component_id: 9, frame_size: 4866, trailer_extended_info_size: 2",
                        description};
    EXPECT_EQ(description, "LSPX sender to: 127.0.0.1:45118, topic ID: 7");
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
