// Diagnostic streams, from the thread's node to a listener on a real socket.

#include "testSupport.hpp"

#include <lumolib/lumoThread.hpp>

#include <vosk/test/allocationCount.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/loopback.hpp>

namespace vosk::lumo {
namespace {

using log4cplus::WARN_LOG_LEVEL;
using vosk::test::At;

using Record = std::array<float, 40>;

struct TestThread : Thread {
    explicit TestThread(const std::string& streams)
        : TestThread{test::CfgOf("cfg: {busy: false, diagnostic_streams: " + streams + "}")} {}
    explicit TestThread(const oru::configng::PliConfigInstanceNode& node) : Thread{"FSInput", node, ""} {
        pktwire::qudex::Sender::Config defaults;
        defaults.sample_size = sizeof(Record);
        defaults.num_frames = 1;
        m_streams = SetupDiagnosticStreams(node, {}, defaults);
    }
    void Work(std::promise<void>&) override {}
    using Thread::SendDiagnosticSample;

    std::size_t m_streams = 0;
};

// A peer that listens on a port of its own.
struct Listener {
    std::string Stream(const std::string& keys = "") const {
        return "{ip_dest: 127.0.0.1, qudex_topic: 8, udp_dest: " + std::to_string(m_socket.LocalPort()) +
               keys + "}";
    }

    // The record that has come, if it is whole and has the ID, which stands in its time too.
    std::optional<Record> Receive(unsigned id) {
        Record record{};
        const auto buffer = gsl::as_writable_bytes(gsl::span{record});
        const auto [error, sample] = m_receiver.ReceiveSample(buffer, std::chrono::seconds{0});
        if (error || sample->first->SampleId() != id || sample->first->Timestamp() != At(id)) return {};
        return record;
    }

    pktwire::UdpRxSocket m_socket{vosk::test::Listening(), nullptr};
    pktwire::qudex::Receiver m_receiver{{.topic = 8, .num_frames = 4}, m_socket, nullptr};
};

TEST(DiagnosticStreams, WithoutASequenceThereAreNone) {
    for (const char* streams : {"5", "{ip_dest: 127.0.0.1}", "[]", ""})
        EXPECT_EQ(TestThread{streams}.m_streams, 0U) << streams;
    EXPECT_THROW(TestThread{"[{ip_dest: 127.0.0.1}]"}, std::runtime_error);
}

TEST(DiagnosticStreams, EachListenerGetsTheRecordAsItStandsInMemoryAndNothingIsAllocated) {
    Listener first;
    Listener second;
    TestThread thread{fmt::format("[{}, {}]", first.Stream(), second.Stream(", num_frames: 3"))};
    Record record{};
    std::iota(record.begin(), record.end(), 0.3F);
    const auto before = vosk::test::AllocationsOfThisThread();
    thread.SendDiagnosticSample(4'000'000'000, At(4'000'000'000), record, At(0));
    EXPECT_EQ(vosk::test::AllocationsOfThisThread(), before);
    EXPECT_EQ(first.Receive(4'000'000'000), record);
    EXPECT_EQ(second.Receive(4'000'000'000), record);
}

TEST(DiagnosticStreams, AStreamThatFailsKeepsNoOtherFromSendingAndAnAbsentListenerIsNoFailure) {
    Listener listener;
    const std::string gone = Listener{}.Stream();
    TestThread thread{
        fmt::format("[{}, {}, {}]", listener.Stream(", sample_size: 12"), gone, listener.Stream())};
    const vosk::test::LogCapture log;
    for (unsigned id = 1; id <= 3; ++id) {
        thread.SendDiagnosticSample(id, At(id), Record{}, At(id));
        EXPECT_TRUE(listener.Receive(id));
    }
    EXPECT_EQ(log.Texts("", WARN_LOG_LEVEL).size(), 3U);
}

}  // namespace
}  // namespace vosk::lumo
