#include <lumolib/utilities.hpp>

#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

using namespace vosk::lumo;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using vosk::test::NodeOf;
using vosk::test::TextOf;

namespace {

TEST(Duration, IsRoundedUpToItsUnit) {
    for (const auto& [text, count] : {std::pair{"1500 ns", 2}, {"-1500 ns", -1}, {"1 ms", 1000}})
        EXPECT_EQ(ParseDuration<microseconds>(text), microseconds{count});
    for (const auto& [text, count] : {std::pair{"1000000 ns", 1}, {"1001 us", 2}, {"-7 ms", -7}})
        EXPECT_EQ(ParseDuration<milliseconds>(text), milliseconds{count});
    EXPECT_EQ(ParseDuration<nanoseconds>("-3 us"), nanoseconds{-3000});
}

TEST(Duration, OfAnotherFormOrBeyondItsCountIsRefused) {
    for (const char* text :
         {"", "1000", "abc us", "1 s", "2  us", "9223372036854775808 us", "9223372036854776 ms"})
        EXPECT_THROW(ParseDuration<microseconds>(text), std::logic_error) << text;
    EXPECT_EQ(ParseDuration<microseconds>("9223372036854775 ms"), microseconds{9223372036854775000});
    EXPECT_THROW(ParseDuration<nanoseconds>("-9223372036854776 us"), std::out_of_range);
    for (const std::string unit : {" ns", " us", " ms"})
        EXPECT_NO_THROW(ParseDuration<milliseconds>("-9223372036854775808" + unit));
}

TEST(Duration, ThatIsAddedToTimesIsAtMostAnHourEitherWay) {
    const auto node = NodeOf(
        "{hour: 3600000 ms, back: -3600000000 us, over: 3600000001 us, "
        "under: -3600000001 us, most: 9223372036854775807 us}");
    EXPECT_EQ(GetBoundedDurationParam(node, "hour"), std::chrono::hours{1});
    EXPECT_EQ(GetBoundedDurationParam(node, "back"), -std::chrono::hours{1});
    for (const std::string key : {"over", "under", "most"}) {
        EXPECT_EQ(TextOf([&] { return GetBoundedDurationParam(node, key); }),
                  "ERR: test.yaml." + key + " is out of range");
    }
}

TEST(Params, OfAnotherFormAreThrownOrFoundInAReview) {
    const auto node = NodeOf("{cpu: 3, wrong: telescope}");
    EXPECT_THROW(GetVectorParam<int>(node, "cpu"), std::exception);
    EXPECT_THROW(GetIpv4Param(node, "wrong", {}), std::runtime_error);
    const oru::configng::PliConfigReview review;
    EXPECT_FALSE(GetIpv4Param(node, "wrong", {}).IsGiven());
    EXPECT_TRUE(GetVectorParam<int>(node, "cpu").empty());
    EXPECT_EQ(review.Findings().size(), 2U);
}

}  // namespace
