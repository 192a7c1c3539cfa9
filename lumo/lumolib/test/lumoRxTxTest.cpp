#include "testSupport.hpp"

#include <lumolib/streamInput.hpp>

#include <vosk/test/logCapture.hpp>
#include <vosk/test/loopback.hpp>

using namespace testing;
using vosk::test::LogCapture;

namespace vosk::lumo {
namespace {

const std::string PORT = std::to_string(vosk::test::UniquePort());
const std::string RX = "listen_ip: 127.0.0.1, iface_name: lo, listen_udp: " + PORT;
const std::string TX = "ip_dest: 127.0.0.1, udp_dest: " + PORT;

oru::configng::PliConfigInstanceNode Node(const std::string& keys) {
    return test::CfgOf("cfg: {" + keys + "}");
}

struct TestRxLspx : RxLspx {
    explicit TestRxLspx(const std::string& keys, DescriptionRef description = std::nullopt)
        : RxLspx{Node(keys), {}, {.num_frames = 5}, {.data_unit_size = 4}, nullptr, description} {}
    using RxLspx::m_lspx_cfg;
    using RxLspx::m_lspx_receiver;
    using RxLspx::m_qudex_cfg;
    using RxLspx::m_udp_cfg;
};

struct TestTxLspx : TxLspx {
    explicit TestTxLspx(const std::string& keys, DescriptionRef description = std::nullopt)
        : TxLspx{Node("num_frames: 3, " + keys), {}, {}, {.frame_size = 2}, nullptr, description} {}
    using TxLspx::m_lspx_cfg;
    using TxLspx::m_qudex_cfg;
    using TxLspx::m_udp_cfg;
};

TEST(Endpoints, RefuseWhatTheyCannotWorkWithout) {
    const auto rx = [](const std::string& keys) { return [keys] { TestRxLspx{keys}; }; };
    const auto tx = [](const std::string& keys) { return [keys] { TestTxLspx{keys}; }; };
    const std::pair<std::function<void()>, std::string> cases[] = {
        {rx("iface_name: lo"), "udp_cfg.udp.listen is required"},
        {rx("listen_udp: 1, iface_name: lo, listen_ip: ''"), "udp_cfg.ip.listen is required"},
        {rx("listen_udp: 45117"), "udp_cfg.iface_name is required"},
        {rx(RX + ", num_frames: 0"), "qudex_cfg.num_frames is required"},
        {tx("udp_dest: 1"), "udp_cfg.ip.dst is required"},
        {tx("ip_dest: 127.0.0.1"), "udp_cfg.udp.dst is required"},
        {tx(TX + ", frame_size: 0"), "lspx_cfg.frame_size is required"},
        {tx(TX + ", ip_src: 1.2.3.256"), "cfg.ip_src: not an IPv4 address: \"1.2.3.256\""},
        {rx(RX + ", qudex_topic: -1"), "cfg.qudex_topic must not be negative"}};
    for (const auto& [make, text] : cases) {
        const LogCapture log;
        EXPECT_THROW(make(), std::runtime_error);
        EXPECT_THAT(log.Texts(text, log4cplus::ERROR_LOG_LEVEL), SizeIs(1)) << text;
    }
}

TEST(Endpoints, ReadTheirKeysOverTheDefaults) {
    std::string text;
    const TestRxLspx rx{RX + ", cpu: -1, qudex_topic: 1234, endianness: Be, buf_samples: 3", text};
    EXPECT_EQ(text, "LSPX receiver listening on: 127.0.0.1:" + PORT + ", topic ID: 1234");
    EXPECT_FALSE(rx.m_udp_cfg.incoming_cpu);
    EXPECT_EQ((std::tuple{rx.m_qudex_cfg.num_frames, rx.m_lspx_cfg.endianness, rx.m_lspx_cfg.buf_samples}),
              (std::tuple{5, 0, 3U}));
    const TestTxLspx tx{TX + ", ip_time_to_live: 3, qudex_topic: 7, endianness: BEE, source: SIM", text};
    EXPECT_EQ(text, "LSPX sender to: 127.0.0.1:" + PORT + ", topic ID: 7");
    EXPECT_EQ((std::tuple{tx.m_udp_cfg.ip.time_to_live, tx.m_qudex_cfg.num_frames, tx.m_lspx_cfg.frame_size}),
              (std::tuple{3, 3, 2U}));
    EXPECT_EQ((std::tuple{tx.m_lspx_cfg.endianness, tx.m_lspx_cfg.source}), (std::tuple{8, 0x10}));
}

TEST(Receivers, LogAtTheirEndWhatTheyMetBesidesSamples) {
    const LogCapture log;
    for (const bool is_met : {false, true}) {
        const TestRxLspx rx{RX};
        if (!is_met) continue;
        pktwire::UdpTxSocket tx{vosk::test::SendingTo(vosk::test::UniquePort()), nullptr};
        std::string foreign(100, 'x');
        iovec piece{foreign.data(), foreign.size()};
        mmsghdr message{};
        message.msg_hdr.msg_iov = &piece;
        message.msg_hdr.msg_iovlen = 1;
        EXPECT_FALSE(tx.Send({&message, 1}));
        EXPECT_TRUE(test::Eventually([&] {
            rx.m_lspx_receiver->ReceiveSample({}, {}, {}, std::chrono::seconds{0});
            return rx.m_lspx_receiver->GetCounters().packets == 1;
        }));
    }
    EXPECT_THAT(log.Texts("Receiver on 127.0.0.1:" + PORT + ", topic ID: 0: "),
                ElementsAre(HasSubstr("foreign: 1, ")));
}

struct ScriptedInput : LspxInput {
    explicit ScriptedInput(const std::shared_ptr<InputStreamState>& state)
        : LspxInput{"Scripted",
                    Node("busy: false, " + RX),
                    {},
                    {.topic = 7, .num_frames = 3},
                    {.data_unit_size = 2},
                    {log4cplus::WARN_LOG_LEVEL, "Scripted: ", state}} {}
    using LspxInput::RunCycle;

    Received Receive() override { return {error, pktwire::lspx::Receiver::Sample{}}; }
    void OnSample(const Leader& /*leader*/, const Trailer& /*trailer*/, time_point /*now*/) override {
        ADD_FAILURE() << "a sample without leader and trailer";
    }

    std::error_code error;
};

TEST(StreamInput, ATimeOutIsSilentAndAnErrorOrHalfASampleIsInvalid) {
    const LogCapture log;
    const auto state = std::make_shared<InputStreamState>(DataStreamIdentifier::WFS_GP1);
    ScriptedInput input{state};
    const auto invalid_after = [&](std::error_code error) {
        input.error = error;
        input.RunCycle();
        return state->GetTopicData().invalid_count;
    };
    EXPECT_EQ(invalid_after(std::make_error_code(std::errc::timed_out)), 0U);
    EXPECT_EQ(invalid_after({ETIMEDOUT, std::system_category()}), 0U);
    EXPECT_EQ(invalid_after(std::make_error_code(std::errc::io_error)), 1U);
    EXPECT_EQ(invalid_after({}), 2U);
    EXPECT_EQ(state->GetTopicData().sample_count, 0U);
    EXPECT_THAT(log.Texts("Scripted: ", log4cplus::WARN_LOG_LEVEL),
                ElementsAre("Scripted: Input/output error"));
}

}  // namespace
}  // namespace vosk::lumo
