#include <vosk/common/telegraf/telemSender.hpp>

#include <vosk/test/logCapture.hpp>
#include <vosk/test/messageQueue.hpp>
#include <vosk/test/support.hpp>

#include <sys/stat.h>
#include <mutex>

using namespace testing;
using namespace vosk::common::telegraf;
using namespace vosk::test;
using vosk::common::shmif::ShmIf;

namespace {

class SHMTelemSenderTest : public Test {
protected:
    SHMTelemSenderTest() { ShmIf::Setup(m_prefix); }
    ~SHMTelemSenderTest() override { ShmIf::Teardown(); }

    void SetupSender() { m_sender.Setup("rtc_performance", "field_stabilization", ""); }
    void Record(const std::string& field, double value) {
        m_sender.RecordPoint("rtc_performance", "field_stabilization", field, value);
    }

    const std::string m_prefix = std::string{"/"}.append(UniqueName()).append("_");
    const std::string m_queue = m_prefix + "vosk_telemetry_queue";
    SHMTelemSender m_sender;
    const LogCapture m_log;
};

TEST_F(SHMTelemSenderTest, WritesOneFieldALineWithUpToSixteenDigitsAndRefusesEmptyNames) {
    SetupSender();
    const auto expect_text = [this](const std::string& text, const auto& value) {
        m_sender.RecordPoint("rtc_performance", "m4_output", "field", value);
        EXPECT_THAT(Drain(m_queue),
                    ElementsAre(StartsWith("/oru/cs/vosk(" + m_prefix.substr(1) +
                                           "),rtc_performance=m4_output field=" + text + '\0')));
    };
    expect_text("0.1", 0.1);
    expect_text("1234567.125", 1234567.125);
    expect_text("0.3333333333333333", 1.0 / 3.0);
    expect_text("4294967295", 4294967295U);
    expect_text("-7", -7);
    for (const auto& [set, tag, field] : {std::tuple{"", "t", "f"}, {"s", "", "f"}, {"s", "t", ""}}) {
        EXPECT_EQ(TextOf<std::invalid_argument>(
                      [&, s = set, t = tag, f = field] { m_sender.RecordPoint(s, t, f, 1); }),
                  "tag_set, tag or field_set empty");
    }
}

TEST_F(SHMTelemSenderTest, FillsOneZeroPaddedMessageALineAndDropsALineThatDoesNotFit) {
    Record("before the set-up", 1);
    SetupSender();
    Record(std::string(100, 'x'), 3);
    Record("diff", 3);
    std::string line = "/oru/cs/vosk(" + m_prefix.substr(1) + "),rtc_performance=field_stabilization diff=3";
    line.resize(256, '\0');
    EXPECT_THAT(Drain(m_queue), ElementsAre(HasSubstr(" xxx"), line));
    m_sender.Send(std::string(257, 'x'));
    EXPECT_TRUE(Drain(m_queue).empty());
    m_sender.Send(std::string(256, 'x'));
    EXPECT_EQ(Drain(m_queue).size(), 1U);
}

TEST_F(SHMTelemSenderTest, LongestLineFitsWithTheLongestPrefix) {
    std::string prefix;
    while (!ShmIf::FaultOfPrefix(prefix + 'p')) prefix += 'p';
    ShmIf::Setup(prefix);
    SetupSender();
    Record("m5_time_since_last_send_stddev_ms", -1.0 / 3e300);
    EXPECT_EQ(Drain(prefix + "vosk_telemetry_queue").size(), 1U);
}

TEST_F(SHMTelemSenderTest, QueueThatRefusesCostsTheTelemetryAndNoStart) {
    ASSERT_EQ(::mkdir(("/dev/shm" + m_queue).c_str(), 0700), 0);
    SetupSender();
    EXPECT_FALSE(m_sender.IsSetup());
    m_sender.Send("line");
    Record("c", 1);
    EXPECT_THAT(m_log.Texts("Telemetry of field_stabilization is off. Failed to create/open shared memory: "),
                ElementsAre(HasSubstr(m_queue)));
    ::rmdir(("/dev/shm" + m_queue).c_str());
}

TEST_F(SHMTelemSenderTest, LinesThatAHeldLockCostsAreCountedAndLoggedOnce) {
    SetupSender();
    {
        QueueLock held{m_queue};
        const std::lock_guard lock{held.Get()};
        for (int i = 0; i < 5; ++i) m_sender.Send("lost");
    }
    EXPECT_EQ(m_log.Texts("Telemetry of field_stabilization is dropped").size(), 1U);
    int sent = 0;
    EXPECT_TRUE(Eventually([&] {
        m_sender.Send("line");
        ++sent;
        return !Drain(m_queue).empty();
    }));
    EXPECT_THAT(m_log.Texts("goes out again"),
                ElementsAre(HasSubstr(std::to_string(5 + sent - 1) + " lines")));
}

}  // namespace
