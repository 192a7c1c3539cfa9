#include <vosk/common/timeString.hpp>

#include <vosk/test/support.hpp>

using namespace std::chrono_literals;

namespace vosk::lumo {
namespace {

TEST(GetTimeString, WritesTheTimeOfDay) {
    EXPECT_EQ(GetTimeString(test::At(12h + 34min + 56s + 7us)), "12:34:56.000007");
    EXPECT_EQ(GetTimeString(test::At(24h * 20'000 + 23h + 59min + 59s + 999'999'999ns)), "23:59:59.999999");
    EXPECT_EQ(GetTimeString(test::At(0ns)), "00:00:00.000000");
}

TEST(GetTimeString, CutsADurationTowardsZero) {
    EXPECT_EQ(GetTimeString(1500ns), "1 us");
    EXPECT_EQ(GetTimeString(-1999ns), "-1 us");
    EXPECT_EQ(GetTimeString(2'147'483'648us), "-2147483648 us");  // the count is 32 bits wide
}

}  // namespace
}  // namespace vosk::lumo
