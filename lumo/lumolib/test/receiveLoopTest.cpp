#include <lumolib/receiveLoop.hpp>

#include <gtest/gtest.h>
#include <vosk/test/support.hpp>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <utility>

using namespace std::chrono_literals;

namespace vosk::lumo {
namespace {

const auto NOW = vosk::test::At(42);

// A packet that notes when it is given back.
struct Packet {
    std::string* events;
    char name;
    ~Packet() { *events += name; }
};

struct TestReceiver {
    struct Ends {
        std::unique_ptr<Packet> first, second;
    };
    struct Parts {
        std::unique_ptr<Packet> leader, trailer;
    };

    std::unique_ptr<Packet> Make(char name) const {
        return has.find(name) == has.npos ? nullptr : std::unique_ptr<Packet>{new Packet{events, name}};
    }
    std::pair<std::error_code, std::optional<Ends>> ReceiveSample(gsl::span<std::byte>,
                                                                  std::chrono::nanoseconds timeout) const {
        EXPECT_EQ(timeout, 500us);
        std::optional<Ends> ends;
        if (!has.empty()) ends = Ends{Make('1'), Make('2')};
        return {error, std::move(ends)};
    }
    std::pair<std::error_code, Parts> ReceiveSample(gsl::span<std::byte>, gsl::span<std::byte>,
                                                    gsl::span<std::byte> trailer,
                                                    std::chrono::nanoseconds timeout) const {
        EXPECT_EQ(timeout, 500us);
        EXPECT_TRUE(trailer.empty());
        return {error, Parts{Make('1'), Make('2')}};
    }

    std::error_code error;
    std::string has;  // names of the packets that came
    std::string* events;
};

TEST(ReceiveCycle, TellsTheStreamWhatCameThenGivesThePacketsBackTheSecondFirst) {
    const auto io_error = std::make_error_code(std::errc::io_error);
    const std::error_code system_time_out{ETIMEDOUT, std::system_category()};
    struct Case {
        std::error_code error;
        const char* has;
        const char* qudex;  // events: E error, S sample, N nothing; packets given back
        const char* lspx;
    };
    const Case cases[] = {{{}, "12", "S21", "S21"},
                          {{}, "", "N", "N"},
                          {{}, "1", "S1", "N1"},
                          {io_error, "12", "E21", "E21"},
                          {io_error, "1", "E1", "E1"},
                          {system_time_out, "", "", ""},
                          {std::make_error_code(std::errc::timed_out), "", "", ""}};
    const atomclk::ManualClock clock{NOW};
    for (const Case& expected : cases) {
        std::string events;
        const auto note = [&events](char what) {
            return [&events, what](const auto&... args) {
                EXPECT_EQ(std::get<sizeof...(args) - 1>(std::tie(args...)), NOW);
                events += what;
            };
        };
        const TestReceiver receiver{expected.error, expected.has, &events};
        std::array<std::byte, 4> buffer{};
        ReceiveQudexOnce(receiver, buffer, 500us, note('E'), note('S'), note('N'));
        EXPECT_EQ(std::exchange(events, {}), expected.qudex) << expected.has;
        ReceiveLspxOnce(receiver, buffer, buffer, 500us, note('E'), note('S'), note('N'));
        EXPECT_EQ(events, expected.lspx) << expected.has;
    }
}

}  // namespace
}  // namespace vosk::lumo
