#include <lumolib/utilities.hpp>

#include <oru/configng/pliConfigDocument.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

using namespace vosk::lumo;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

namespace {

oru::configng::PliConfigInstanceNode Read(const std::string& text) {
    return oru::configng::PliConfigDocument::FromText(text, "test.yaml").Instances();
}

template <class Error>
std::string TextOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const Error& error) {
        return error.what();
    } catch (const std::exception& error) {
        return std::string{"another exception: "} + error.what();
    }
    return "no exception";
}

TEST(Duration, IsRoundedUpToItsUnit) {
    EXPECT_EQ(ParseDuration<microseconds>("1500 ns"), microseconds{2});
    EXPECT_EQ(ParseDuration<microseconds>("-1500 ns"), microseconds{-1});
    EXPECT_EQ(ParseDuration<milliseconds>("1500 ns"), milliseconds{1});
    EXPECT_EQ(ParseDuration<milliseconds>("1000000 ns"), milliseconds{1});
    EXPECT_EQ(ParseDuration<microseconds>("500 us"), microseconds{500});
    EXPECT_EQ(ParseDuration<milliseconds>("1001 us"), milliseconds{2});
    EXPECT_EQ(ParseDuration<microseconds>("1 ms"), microseconds{1000});
    EXPECT_EQ(ParseDuration<milliseconds>("-7 ms"), milliseconds{-7});
    EXPECT_EQ(ParseDuration<nanoseconds>("1333333 ns"), nanoseconds{1333333});
    EXPECT_EQ(ParseDuration<nanoseconds>("-3 us"), nanoseconds{-3000});
    EXPECT_EQ(ParseDuration<nanoseconds>("2 ms"), nanoseconds{2'000'000});
    EXPECT_EQ(ParseDuration<microseconds>("12abc us"), microseconds{12});
}

TEST(Duration, OfAnotherFormIsRefused) {
    const auto refusal = [](const std::string& text) {
        return TextOf<std::invalid_argument>([&text] { ParseDuration<microseconds>(text); });
    };
    EXPECT_EQ(refusal(""), "GetTimeDurationParam(): invalid duration format");
    EXPECT_EQ(refusal("1000"), "GetTimeDurationParam(): invalid duration format");
    EXPECT_EQ(refusal("1 s"), "GetTimeDurationParam(): unsupported duration unit: s");
    EXPECT_EQ(refusal("2  us"), "GetTimeDurationParam(): unsupported duration unit:  us");
    EXPECT_EQ(refusal("abc us"), "stoll");
    EXPECT_EQ(refusal(" us"), "stoll");
}

TEST(Duration, KeepsWithinTheRangeOfItsCount) {
    const auto refusal = [](const std::string& text) {
        return TextOf<std::out_of_range>([&text] { ParseDuration<microseconds>(text); });
    };
    EXPECT_EQ(refusal("9223372036854775808 us"), "stoll");
    EXPECT_EQ(ParseDuration<microseconds>("9223372036854775 ms"), microseconds{9223372036854775000});
    EXPECT_EQ(refusal("9223372036854776 ms"),
              "GetTimeDurationParam(): duration out of range: 9223372036854776 ms");
    EXPECT_EQ(TextOf<std::out_of_range>([] { ParseDuration<nanoseconds>("-9223372036854776 us"); }),
              "GetTimeDurationParam(): duration out of range: -9223372036854776 us");
    EXPECT_THROW(ParseDuration<nanoseconds>("9223372036855 ms"), std::out_of_range);
    for (const char* unit : {" ns", " us", " ms"}) {
        for (const char* count : {"9223372036854775807", "-9223372036854775808"}) {
            EXPECT_NO_THROW(ParseDuration<milliseconds>(std::string{count} + unit));
        }
    }
}

TEST(Duration, ThatIsAddedToTimesIsAtMostAnHourEitherWay) {
    const auto node = Read(
        "{hour: 3600000 ms, back: -3600000000 us, over: 3600000001 us, "
        "under: -3600000001 us, most: 9223372036854775807 us}");
    EXPECT_EQ(GetBoundedDurationParam(node, "hour"), std::chrono::hours{1});
    EXPECT_EQ(GetBoundedDurationParamOr(node, "back", microseconds{1}), -std::chrono::hours{1});
    EXPECT_EQ(GetBoundedDurationParamOr(node, "absent", microseconds{7}), microseconds{7});
    for (const std::string key : {"over", "under", "most"}) {
        EXPECT_EQ(TextOf<std::runtime_error>([&] { GetBoundedDurationParamOr(node, key, microseconds{1}); }),
                  "ERR: test.yaml." + key + " is out of range");
    }
}

TEST(Params, AreReadFromTheirNode) {
    const auto node = Read("{cpu: 3, list: [1, 2], none: [], timeout: 2 ms}");
    EXPECT_EQ(GetParam<int>(node, "cpu"), 3);
    EXPECT_EQ(GetParamOr<int>(node, "cpu", -1), 3);
    EXPECT_EQ(GetParamOr<int>(node, "absent", -1), -1);
    EXPECT_EQ(GetVectorParam<int>(node, "list"), (std::vector{1, 2}));
    EXPECT_TRUE(GetVectorParam<int>(node, "none").empty());
    EXPECT_EQ(GetTimeDurationParam<microseconds>(node, "timeout"), microseconds{2000});
    EXPECT_EQ(GetTimeDurationParamOr(node, "absent", microseconds{7}), microseconds{7});

    EXPECT_EQ(TextOf<oru::configng::PliConfigNotFoundError>([&] { GetParam<int>(node, "busy"); }),
              "Member busy not defined in node test.yaml");
    EXPECT_EQ(TextOf<oru::configng::PliConfigIterationError>([&] { GetVectorParam<int>(node, "cpu"); }),
              "Iteration over scalar/undefined nodes is not allowed");
}

TEST(Params, TakeAddressesOrTheirDefault) {
    const auto node = Read("{group: 239.1.2.3, wrong: telescope}");
    const pktwire::Ipv4 fallback{"127.0.0.1"};
    EXPECT_EQ(std::string{GetIpv4Param(node, "group", fallback)}, "239.1.2.3");
    EXPECT_EQ(std::string{GetIpv4Param(node, "absent", fallback)}, "127.0.0.1");
    EXPECT_THROW(GetIpv4Param(node, "wrong", fallback), std::runtime_error);
}

}  // namespace
