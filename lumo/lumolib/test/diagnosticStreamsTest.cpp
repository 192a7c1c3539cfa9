// Diagnostic streams, from the thread's node to a listener on a real socket.

#include <lumolib/lumoThread.hpp>

#include <vosk/test/allocationCount.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/loopback.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

using namespace std::chrono_literals;

namespace vosk::lumo {
namespace {

using atomclk::AtomClk;
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

// A peer that listens on a port of its own.
class Listener {
public:
    Listener() = default;

    std::string Stream(const std::string& keys = "") const {
        return "{ip_dest: 127.0.0.1, qudex_topic: 8, udp_dest: " + std::to_string(m_socket.LocalPort()) +
               keys + "}";
    }

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

TEST(DiagnosticStreams, WithoutASequenceThereAreNone) {
    for (const char* keys : {"", ", diagnostic_streams: 5", ", diagnostic_streams: {ip_dest: 127.0.0.1}",
                             ", diagnostic_streams: []", ", diagnostic_streams:"}) {
        TestThread thread{keys};
        EXPECT_EQ(thread.SetUp(), 0U) << keys;
        thread.SendDiagnosticSample(1, At(1), Record{}, At(1));
    }
    EXPECT_THROW(TestThread{", diagnostic_streams: [{ip_dest: 127.0.0.1}]"}, std::runtime_error);
}

TEST(DiagnosticStreams, EachListenerGetsTheRecordAsItStandsInMemoryAndNothingIsAllocated) {
    Listener first;
    Listener second;
    TestThread thread{", diagnostic_streams: [" + first.Stream() + ", " + second.Stream(", num_frames: 3") +
                      "]"};
    EXPECT_EQ(thread.m_streams, 2U);
    EXPECT_EQ(thread.SetUp(), 0U);  // the streams are set up once
    Record record{};
    std::iota(record.begin(), record.end(), 0.3F);
    const auto before = vosk::test::AllocationsOfThisThread();
    thread.SendDiagnosticSample(4'000'000'000, At(77), record, At(1'500'000));
    EXPECT_EQ(vosk::test::AllocationsOfThisThread(), before);
    for (Listener* listener : {&first, &second}) {
        EXPECT_EQ(listener->Receive(), record);
        EXPECT_EQ(listener->m_id, 4'000'000'000);
        EXPECT_EQ(listener->m_time, At(77));
        EXPECT_FALSE(listener->Receive());
    }
}

TEST(DiagnosticStreams, AStreamThatFailsKeepsNoOtherFromSendingAndAnAbsentListenerIsNoFailure) {
    Listener listener;
    const std::string gone = Listener{}.Stream();
    TestThread thread{", diagnostic_streams: [" + listener.Stream(", sample_size: 12") + ", " + gone + ", " +
                      listener.Stream() + "]"};
    const LogCapture log;
    for (unsigned id = 1; id <= 3; ++id) {
        thread.SendDiagnosticSample(id, At(id), Record{}, At(id));
        EXPECT_TRUE(listener.Receive());
        EXPECT_EQ(listener.m_id, id);
        EXPECT_EQ(log.Texts("Message too long", WARN_LOG_LEVEL).size(), id);
    }
    EXPECT_EQ(log.Texts("", WARN_LOG_LEVEL).size(), 3U);
}

}  // namespace
}  // namespace vosk::lumo
