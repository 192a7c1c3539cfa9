#include <vosk/common/telegraf/telemSender.hpp>

#include <vosk/test/logCapture.hpp>
#include <vosk/test/messageQueue.hpp>
#include <vosk/test/support.hpp>

#include <sys/stat.h>
#include <mutex>

using namespace vosk::common::telegraf;

namespace {

struct RecordingSender final : TelemSender {
    bool IsSetup() const override { return m_is_setup; }
    void Send(const std::string& line) override { m_lines.push_back(line); }

    bool m_is_setup = true;
    std::vector<std::string> m_lines;
};

TEST(TelemSender, WritesOneFieldALineWithUpToSixteenDigits) {
    RecordingSender sender;
    sender.m_source = "s";
    const auto line = [&sender](const auto& value) {
        sender.RecordPoint("rtc_performance", "m4_output", "field", value);
        return sender.m_lines.back();
    };
    const std::string head = "/oru/cs/vosk(s),rtc_performance=m4_output field=";
    EXPECT_EQ(line(0.1), head + "0.1");
    EXPECT_EQ(line(1234567.125), head + "1234567.125");
    EXPECT_EQ(line(1.0 / 3.0), head + "0.3333333333333333");
    EXPECT_EQ(line(4294967295U), head + "4294967295");
    EXPECT_EQ(line(-7), head + "-7");
}

TEST(TelemSender, RefusesEmptyNamesOnlyOnceSetUp) {
    RecordingSender sender;
    const auto refusal = testing::ThrowsMessage<std::invalid_argument>("tag_set, tag or field_set empty");
    EXPECT_THAT([&] { sender.RecordPoint("", "t", "f", 1); }, refusal);
    EXPECT_THAT([&] { sender.RecordPoint("s", "", "f", 1); }, refusal);
    EXPECT_THAT([&] { sender.RecordPoint("s", "t", "", 1); }, refusal);
    sender.m_is_setup = false;
    EXPECT_NO_THROW(sender.RecordPoint("", "", "", 1));
    EXPECT_TRUE(sender.m_lines.empty());
}

class SHMTelemSenderTest : public ::testing::Test {
protected:
    SHMTelemSenderTest() { vosk::common::shmif::ShmIf::Setup(m_prefix); }
    ~SHMTelemSenderTest() override { vosk::common::shmif::ShmIf::Teardown(); }

    std::vector<std::string> Drain() const { return vosk::test::Drain(m_queue); }

    const std::string m_prefix = "/" + vosk::test::UniqueName() + "_";
    const std::string m_queue = m_prefix + "vosk_telemetry_queue";
};

TEST_F(SHMTelemSenderTest, FillsOneZeroPaddedMessageALine) {
    SHMTelemSender sender;
    EXPECT_FALSE(sender.IsSetup());
    sender.RecordPoint("a", "b", "c", 1);
    sender.Setup("rtc_performance", "gpao", "");
    EXPECT_TRUE(sender.IsSetup());
    sender.RecordPoint(sender.m_tag_set, sender.m_tag, std::string(100, 'x'), 3);
    sender.RecordPoint(sender.m_tag_set, sender.m_tag, "gpao_sample_diff", 3U);

    const std::string head = "/oru/cs/vosk(" + m_prefix.substr(1) + "),rtc_performance=gpao ";
    std::string line = head + "gpao_sample_diff=3";
    line.resize(256, '\0');
    EXPECT_THAT(Drain(), testing::ElementsAre(testing::StartsWith(head + "xxx"), line));
}

TEST_F(SHMTelemSenderTest, DropsWhatDoesNotFit) {
    SHMTelemSender sender;
    sender.Setup("set", "tag", "");
    sender.Send(std::string(257, 'x'));
    EXPECT_TRUE(Drain().empty());
    sender.Send(std::string(256, 'x'));
    for (int i = 0; i < 150; ++i) sender.Send("line");
    EXPECT_EQ(Drain().size(), 100U);
}

TEST_F(SHMTelemSenderTest, LongestLineFitsWithTheLongestPrefix) {
    using vosk::common::shmif::ShmIf;
    std::string prefix;
    while (!ShmIf::FaultOfPrefix(prefix + 'p')) prefix += 'p';
    ShmIf::Setup(prefix);
    SHMTelemSender sender;
    sender.Setup("rtc_performance", "field_stabilization", "");
    sender.RecordPoint(sender.m_tag_set, sender.m_tag, "m5_time_since_last_send_stddev_ms", -1.0 / 3e300);
    EXPECT_EQ(vosk::test::Drain(prefix + "vosk_telemetry_queue").size(), 1U);
}

TEST_F(SHMTelemSenderTest, QueueThatRefusesCostsTheTelemetryAndNoStart) {
    const vosk::test::LogCapture log;
    ASSERT_EQ(::mkdir(("/dev/shm" + m_queue).c_str(), 0700), 0);
    SHMTelemSender sender;
    EXPECT_TRUE(log.Lines().empty());
    sender.Setup("set", "tag", "");
    EXPECT_FALSE(sender.IsSetup());
    sender.Send("line");
    sender.RecordPoint("a", "b", "c", 1);
    EXPECT_THAT(log.Texts("Telemetry of tag is off. Failed to create/open shared memory: "),
                testing::ElementsAre(testing::HasSubstr(m_queue)));
    ::rmdir(("/dev/shm" + m_queue).c_str());
}

TEST_F(SHMTelemSenderTest, LinesThatAHeldLockCostsAreCountedAndSaidOnce) {
    const vosk::test::LogCapture log;
    SHMTelemSender sender;
    sender.Setup("set", "tag", "");
    {
        vosk::test::QueueLock held{m_queue};
        const std::lock_guard lock{held.Get()};
        for (int i = 0; i < 5; ++i) sender.Send("lost");
    }
    EXPECT_EQ(log.Texts("Telemetry of tag is dropped").size(), 1U);
    int sent = 0;
    EXPECT_TRUE(vosk::test::Eventually([&] {
        sender.Send("line");
        ++sent;
        return !Drain().empty();
    }));
    EXPECT_THAT(log.Texts("goes out again"),
                testing::ElementsAre(testing::HasSubstr(std::to_string(5 + sent - 1) + " lines")));
}

}  // namespace
