#include "peers/faultySocket.hpp"

#include <vosk/test/recordingSocket.hpp>
#include <vosk/test/support.hpp>

#include <set>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using vosk::test::RecordingSocket;

Scenario WithRule(const FaultRule& rule) {
    Scenario scenario;
    scenario.faults.push_back(rule);
    return scenario;
}

std::set<int> HarmedSamples(const Scenario& scenario, Stream stream) {
    FaultGenerator generator(scenario, stream);
    std::set<int> harmed;
    for (int i = 0; i < 5000; ++i)
        if (generator.Next(Seconds{i * 0.001})) harmed.insert(i);
    return harmed;
}

TEST(FaultGenerator, HarmsTheSameSamplesInEveryRunWhateverAnotherRuleDoes) {
    const FaultRule drops{.stream = Stream::Feedback, .kind = FaultKind::Drop, .share = 0.02};
    Scenario both = WithRule(drops);
    both.faults.push_back(
        {.stream = Stream::Feedback, .kind = FaultKind::Corrupt, .share = 1.0, .from = 1s, .to = 2s});
    std::set<int> expected = HarmedSamples(WithRule(drops), Stream::Feedback);
    EXPECT_GT(expected.size(), 50U);
    EXPECT_LT(expected.size(), 160U);
    for (int i = 1000; i < 2000; ++i) expected.insert(i);
    EXPECT_EQ(HarmedSamples(both, Stream::Feedback), expected);
    EXPECT_TRUE(HarmedSamples(both, Stream::WavefrontCommand).empty());
}

// Sends the packets "ab", "cd", "ef", each in two pieces.
void SendThree(pktwire::TxSocket& socket) {
    std::array<std::string, 6> pieces{"a", "b", "c", "d", "e", "f"};
    for (std::size_t packet = 0; packet < 3; ++packet) {
        std::array<iovec, 2> parts{iovec{pieces[2 * packet].data(), 1},
                                   iovec{pieces[2 * packet + 1].data(), 1}};
        mmsghdr message{};
        message.msg_hdr.msg_iov = parts.data();
        message.msg_hdr.msg_iovlen = parts.size();
        socket.Send(std::span(&message, 1));
    }
}

std::vector<std::string> PacketsUnder(FaultKind kind, std::uint64_t dice) {
    RecordingSocket recording;
    FaultySocket faulty(recording);
    faulty.Arm({kind, 0us, dice});
    SendThree(faulty);
    EXPECT_TRUE(recording.datagrams.empty());
    faulty.Release();
    return recording.datagrams;
}

TEST(FaultySocket, HarmsThePacketThatTheDiceName) {
    EXPECT_THAT(PacketsUnder(FaultKind::Drop, 1), ElementsAre("ab", "ef"));
    EXPECT_THAT(PacketsUnder(FaultKind::Duplicate, 0), ElementsAre("ab", "cd", "ef", "ab"));
    EXPECT_THAT(PacketsUnder(FaultKind::Reorder, 2), ElementsAre("ef", "cd", "ab"));
    EXPECT_THAT(PacketsUnder(FaultKind::Truncate, 1 + 3 * 1), ElementsAre("ab", "c", "ef"));
    EXPECT_THAT(PacketsUnder(FaultKind::Delay, 5), ElementsAre("ab", "cd", "ef"));
}

TEST(FaultySocket, CorruptsExactlyOneByte) {
    for (std::uint64_t dice = 0; dice < 2000; ++dice) {
        const std::vector<std::string> packets = PacketsUnder(FaultKind::Corrupt, dice);
        ASSERT_EQ(packets.size(), 3U);
        const std::string sent = packets[0] + packets[1] + packets[2];
        const std::string whole = "abcdef";
        int changed = 0;
        for (std::size_t i = 0; i < whole.size(); ++i) changed += sent.at(i) != whole[i] ? 1 : 0;
        ASSERT_EQ(changed, 1) << dice;
    }
}

}  // namespace
}  // namespace vosk::rig
