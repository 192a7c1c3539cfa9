#include <atomclk/atomClk.hpp>

#include <bit>
#include <vosk/test/support.hpp>

using atomclk::AtomClk;
using Transport = atomclk::detail::TransportTimepoint<0>;
using vosk::test::At;
using Bytes = std::array<unsigned char, 8>;

namespace {

TEST(AtomClk, RunsForwardAndStandsStillUnderAManualClock) {
    const auto first = AtomClk::now();
    EXPECT_GT(first, At(1'500'000'000'000'000'000));
    {
        atomclk::ManualClock clock{At(5)};
        clock.Advance(std::chrono::nanoseconds{7});
        EXPECT_EQ(AtomClk::now(), At(12));
    }
    EXPECT_GE(AtomClk::now(), first);
}

TEST(TransportTimepoint, IsTheBigEndianCount) {
    EXPECT_EQ(std::bit_cast<Bytes>(Transport{At(0x0102030405060708)}), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(std::bit_cast<Bytes>(Transport{}), Bytes{});
    for (AtomClk::rep count : {AtomClk::rep{-1}, AtomClk::rep{1}, std::numeric_limits<AtomClk::rep>::min(),
                               std::numeric_limits<AtomClk::rep>::max()}) {
        EXPECT_EQ(static_cast<AtomClk::time_point>(Transport{At(count)}), At(count));
    }
}

}  // namespace
