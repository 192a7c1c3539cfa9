// Diagnostic streams, from the thread's node to a listener on a real socket.

#include <lumolib/lumoThread.hpp>

#include <gtest/gtest.h>
#include <vosk/test/allocationCount.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/loopback.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

#include <array>
#include <optional>
#include <string>
#include <vector>

using namespace std::chrono_literals;

namespace vosk::lumo {
namespace {

using atomclk::AtomClk;
using log4cplus::DEBUG_LOG_LEVEL;
using log4cplus::TRACE_LOG_LEVEL;
using log4cplus::WARN_LOG_LEVEL;
using vosk::test::At;
using vosk::test::LogCapture;

using Record = std::array<float, 40>;

pktwire::qudex::Sender::Config Defaults() {
    pktwire::qudex::Sender::Config config{};
    config.sample_size = sizeof(Record);
    config.num_frames = 1;
    return config;
}

class TestThread : public Thread {
public:
    explicit TestThread(const std::string& keys)
        : TestThread{vosk::test::NodeOf("{busy: false" + keys + "}")} {}
    explicit TestThread(const oru::configng::PliConfigInstanceNode& node)
        : Thread{"FSInput", node, ""}, m_node{node}, m_streams{SetUp()} {}

    std::size_t SetUp() { return SetupDiagnosticStreams(m_node, {}, Defaults()); }
    void Work(std::promise<void>&) override {}
    using Thread::SendDiagnosticSample;

    const oru::configng::PliConfigInstanceNode m_node;
    const std::size_t m_streams;
};

// Someone who listens on a port of his own.
class Listener {
public:
    Listener() = default;

    std::string Stream(const std::string& keys = "") const {
        return "{ip_dest: 127.0.0.1, qudex_topic: 8, udp_dest: " + Port() + keys + "}";
    }
    std::string Port() const { return std::to_string(m_socket.LocalPort()); }

    // What has come, if it is one whole record.
    std::optional<Record> Receive() {
        Record record{};
        auto [error, handle] = m_receiver.ReceiveSample(
            gsl::span<std::byte>{reinterpret_cast<std::byte*>(&record), sizeof record}, 0s);
        if (error) return std::nullopt;
        m_id = handle->first->SampleId();
        m_time = handle->first->Timestamp();
        return record;
    }

    unsigned m_id = 0;
    std::optional<AtomClk::time_point> m_time;

private:
    pktwire::UdpRxSocket m_socket{vosk::test::Listening(), nullptr};
    pktwire::qudex::Receiver m_receiver{{.topic = 8, .num_frames = 4}, m_socket, nullptr};
};

TEST(DiagnosticStreams, WithoutASequenceThereAreNoneAndNothingIsSaid) {
    for (const char* keys : {"", ", diagnostic_streams: 5", ", diagnostic_streams: {ip_dest: 127.0.0.1}",
                             ", diagnostic_streams: []", ", diagnostic_streams:"}) {
        TestThread thread{keys};
        const LogCapture log;
        EXPECT_EQ(thread.SetUp(), 0U) << keys;
        thread.SendDiagnosticSample(1, At(1), Record{}, At(1));
        EXPECT_TRUE(log.Lines().empty()) << keys;
    }
}

TEST(DiagnosticStreams, EachListenerGetsTheRecordAsItStandsInMemory) {
    Listener first;
    Listener second;
    const LogCapture log;
    TestThread thread{", diagnostic_streams: [" + first.Stream() + ", " + second.Stream(", num_frames: 3") +
                      "]"};
    EXPECT_EQ(thread.m_streams, 2U);
    Record record{};
    for (std::size_t i = 0; i < record.size(); ++i) record[i] = static_cast<float>(i) / 3;
    thread.SendDiagnosticSample(4'000'000'000, At(77), record, At(1'500'000));
    for (Listener* listener : {&first, &second}) {
        EXPECT_EQ(listener->Receive(), record);
        EXPECT_EQ(listener->m_id, 4'000'000'000);
        EXPECT_EQ(listener->m_time, At(77));
    }
    EXPECT_EQ(log.Count(TRACE_LOG_LEVEL,
                        "FSInput sent diagnostic sample at 00:00:00.001500, sample_id = 4000000000"),
              2);
}

TEST(DiagnosticStreams, AreSetUpOnceInTheOrderOfTheConfiguration) {
    const Listener other;
    Listener listener;
    const LogCapture log;
    TestThread thread{", diagnostic_streams: [{ip_dest: 127.0.0.1, udp_dest: " + other.Port() +
                      ", qudex_topic: 5}, " + listener.Stream() + "]"};
    const std::string prefix = "Thread FSInput, inserted diagnostic stream: QUDEX sender to: 127.0.0.1:";
    EXPECT_EQ(
        log.Texts("diagnostic stream", DEBUG_LOG_LEVEL),
        (std::vector{prefix + other.Port() + ", topic ID: 5", prefix + listener.Port() + ", topic ID: 8"}));
    EXPECT_EQ(thread.SetUp(), 0U);
    EXPECT_EQ(log.Count(WARN_LOG_LEVEL, "Thread FSInput, diagnostic streams are already setup, ignoring!"),
              1);
    thread.SendDiagnosticSample(1, At(1), Record{}, At(1));
    EXPECT_EQ(log.Count(TRACE_LOG_LEVEL, "FSInput sent diagnostic sample at 00:00:00.000000, sample_id = 1"),
              2);  // none was added by the second call
    EXPECT_TRUE(listener.Receive());
    EXPECT_EQ(vosk::test::TextOf<std::runtime_error>(
                  [] { return TestThread{", diagnostic_streams: [{ip_dest: 127.0.0.1}]"}.m_streams; }),
              "Tx::Tx: udp_cfg.udp.dst is required");
}

TEST(DiagnosticStreams, AStreamThatFailsIsToldAndKeepsNoOtherFromSendingAndNoListenerIsNoFailure) {
    Listener listener;
    const std::string gone = Listener{}.Stream();
    TestThread thread{", diagnostic_streams: [" + listener.Stream(", sample_size: 12") + ", " + gone + ", " +
                      listener.Stream() + "]"};
    const LogCapture log;
    std::vector<LogCapture::Line> lines;
    for (unsigned id = 1; id <= 3; ++id) {
        thread.SendDiagnosticSample(id, At(id), Record{}, At(id));
        EXPECT_TRUE(listener.Receive());
        EXPECT_EQ(listener.m_id, id);
        lines.push_back({WARN_LOG_LEVEL, "FSInput ::SendSample(): Message too long"});
        lines.insert(lines.end(), 2,
                     {TRACE_LOG_LEVEL, "FSInput sent diagnostic sample at 00:00:00.000000, sample_id = " +
                                           std::to_string(id)});
    }
    EXPECT_EQ(log.Lines(), lines);
}

TEST(DiagnosticStreams, NothingIsAllocatedForASample) {
    Listener listener;
    TestThread thread{", diagnostic_streams: [" + listener.Stream() + ", " + listener.Stream() + "]"};
    const auto before = vosk::test::AllocationsOfThisThread();
    for (unsigned id = 1; id <= 100; ++id) thread.SendDiagnosticSample(id, At(id), Record{}, At(id));
    EXPECT_EQ(vosk::test::AllocationsOfThisThread() - before, 0U);
}

}  // namespace
}  // namespace vosk::lumo
