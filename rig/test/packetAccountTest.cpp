#include "judge/packetAccount.hpp"

#include <vosk/test/support.hpp>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

constexpr time_point START{1000s};

TEST(SentAccount, FollowsTheHostThroughEachFault) {
    struct Case {
        std::vector<SentPacket> packets;
        HostStream due;  // samples, invalid, lost, dropped, stale
    };
    const auto at = [](int second) { return START + std::chrono::seconds{second}; };
    const std::vector<Case> cases{
        // Nothing tells of a loss before the first sample, nor behind the last one.
        {{{1, at(1), FaultKind::Drop}, {2, at(2), {}}, {3, at(3), FaultKind::Corrupt}}, {1, 0, 0, 0, 0}},
        {{{1, at(1), {}}, {2, at(2), FaultKind::Truncate}, {3, at(3), {}}}, {2, 0, 1, 0, 0}},
        {{{1, at(1), FaultKind::Duplicate}, {2, at(2), {}}}, {2, 0, 0, 0, 1}},
        // Overtaken: passed over, and stale when it comes.
        {{{1, at(1), {}}, {3, at(3), {}}, {2, at(2), FaultKind::Reorder}, {4, at(4), {}}}, {3, 0, 1, 0, 1}},
        // Behind one that was lost it is in time.
        {{{1, at(1), {}}, {3, at(3), FaultKind::Drop}, {2, at(2), FaultKind::Reorder}, {4, at(4), {}}},
         {3, 0, 1, 0, 0}},
        {{{1, at(1), {}}, {1002, at(2), FaultKind::WrongSampleId}, {3, at(3), {}}}, {3, 0, 1000, 0, 0}},
        // A new life counts from 1.
        {{{500, at(1), {}}, {1, at(9), {}}, {2, at(10), {}}}, {3, 0, 0, 0, 0}},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        const SentAccount account = AccountOfSent(cases[i].packets);
        EXPECT_THAT(CompareWithHost("stream", account, cases[i].due), ElementsAre());
        HostStream other = cases[i].due;
        ++other.lost;
        EXPECT_EQ(CompareWithHost("stream", account, other).size(), 1U);
    }
}

TEST(SampleBooks, CloseUpToWhatTheKernelDropped) {
    FaultCounts faults;
    for (const FaultKind kind : {FaultKind::Drop, FaultKind::Corrupt, FaultKind::Truncate, FaultKind::Reorder,
                                 FaultKind::Duplicate, FaultKind::WrongSampleId})
        faults.Add(kind);
    RunFacts facts;
    facts.status_time = facts.status_answered = START + 1s;
    std::vector<time_point> sent(100, START);
    sent.push_back(START + 1s + 1ms);
    struct Case {
        HostStream host;  // samples, invalid, lost, dropped
        std::size_t differences;
    };
    const std::vector<Case> cases{{{97, 3, 0, 0}, 0}, {{98, 2, 0, 0}, 1}, {{96, 4, 0, 0}, 1},
                                  {{96, 3, 0, 0}, 1}, {{98, 3, 0, 0}, 1}, {{95, 4, 1, 2}, 0},
                                  {{94, 6, 0, 2}, 1}, {{94, 3, 3, 2}, 1}};
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(CompareSamplesWithHost("stream", SentUntilTold(sent, facts), faults, cases[i].host).size(),
                  cases[i].differences);
    }
}

TEST(ArrivedAccount, TellsALossFromAnAbsence) {
    RunFacts facts;
    facts.status_time = facts.status_answered = START + 205ms;
    const std::vector<Absences::Absence> absences{{START + 75ms, START + 125ms}};
    ArrivedPackets packets;
    // Points at 80, 100 and 120 ms are away, and 60 ms may have died in the socket.
    for (const auto time : {20ms, 40ms, 140ms, 160ms, 180ms})
        packets.taken.push_back({START + time, START + time + 100us});
    const auto lost = [&](std::uint64_t sent) {
        return AccountOfArrived(packets, absences, 20ms, facts, sent).lost;
    };
    EXPECT_EQ(lost(9), 0U);
    EXPECT_EQ(lost(10), 1U);
    EXPECT_EQ(AccountOfArrived(packets, absences, 20ms, facts, 8).unsent, 1U);
    packets.stale = 1;
    EXPECT_EQ(lost(10), 0U);
}

}  // namespace
}  // namespace vosk::rig
