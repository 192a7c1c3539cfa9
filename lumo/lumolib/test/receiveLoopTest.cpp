#include <lumolib/receiveLoop.hpp>

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <utility>

using atomclk::AtomClk;
using namespace std::chrono_literals;

namespace vosk::lumo {
namespace {

const AtomClk::time_point NOW{AtomClk::duration{42}};

// A packet that notes when it is given back.
struct Packet {
    std::string* events;
    char name;
};

struct GiveBack {
    void operator()(const Packet* packet) const {
        *packet->events += packet->name;
        std::default_delete<const Packet>{}(packet);
    }
};

using PacketPtr = std::unique_ptr<const Packet, GiveBack>;

struct TestReceiver {
    struct Handle {
        PacketPtr first;
        PacketPtr second;
    };
    struct Sample {
        PacketPtr leader;
        PacketPtr trailer;
    };

    std::string& events;
    std::error_code error{};
    bool has_first = true;
    bool has_second = true;

    PacketPtr MakePacket(bool wanted, char name) {
        return wanted ? PacketPtr{std::make_unique<Packet>(Packet{&events, name}).release()} : PacketPtr{};
    }

    std::pair<std::error_code, std::optional<Handle>> ReceiveSample(gsl::span<std::byte>,
                                                                    std::chrono::nanoseconds timeout) {
        EXPECT_EQ(timeout, 500us);
        std::optional<Handle> handle;
        if (has_first) handle = Handle{MakePacket(true, '1'), MakePacket(has_second, '2')};
        return {error, std::move(handle)};
    }

    std::pair<std::error_code, Sample> ReceiveSample(gsl::span<std::byte>, gsl::span<std::byte>,
                                                     gsl::span<std::byte> trailer,
                                                     std::chrono::nanoseconds timeout) {
        EXPECT_EQ(timeout, 500us);
        EXPECT_TRUE(trailer.empty());
        return {error, Sample{MakePacket(has_first, '1'), MakePacket(has_second, '2')}};
    }
};

std::string RunQudex(std::error_code error, bool has_sample) {
    const atomclk::ManualClock clock{NOW};
    std::string events;
    TestReceiver receiver{.events = events, .error = error, .has_first = has_sample};
    std::array<std::byte, 4> buffer{};
    ReceiveQudexOnce(
        receiver, buffer, 500us,
        [&](const std::error_code& code, AtomClk::time_point now) {
            EXPECT_EQ(code, error);
            events += now == NOW ? 'E' : '?';
        },
        [&](const Packet& packet, AtomClk::time_point now) {
            EXPECT_EQ(packet.name, '1');
            events += now == NOW ? 'S' : '?';
        },
        [&](AtomClk::time_point now) { events += now == NOW ? 'N' : '?'; });
    return events;
}

std::string RunLspx(std::error_code error, bool has_leader, bool has_trailer) {
    const atomclk::ManualClock clock{NOW};
    std::string events;
    TestReceiver receiver{
        .events = events, .error = error, .has_first = has_leader, .has_second = has_trailer};
    std::array<std::byte, 4> buffer{};
    ReceiveLspxOnce(
        receiver, buffer, buffer, 500us,
        [&](const std::error_code&, AtomClk::time_point now) { events += now == NOW ? 'E' : '?'; },
        [&](const Packet& leader, const Packet& trailer, AtomClk::time_point now) {
            EXPECT_EQ(leader.name, '1');
            EXPECT_EQ(trailer.name, '2');
            events += now == NOW ? 'S' : '?';
        },
        [&](AtomClk::time_point now) { events += now == NOW ? 'N' : '?'; });
    return events;
}

const std::error_code IO_ERROR = std::make_error_code(std::errc::io_error);
const std::error_code TIMED_OUT{ETIMEDOUT, std::system_category()};

TEST(ReceiveCycle, TellsTheStreamWhatCameThenGivesThePacketsBackTheSecondFirst) {
    EXPECT_EQ(RunQudex({}, true), "S21");
    EXPECT_EQ(RunLspx({}, true, true), "S21");
}

TEST(ReceiveCycle, TimeOutIsSilent) {
    EXPECT_EQ(RunQudex(TIMED_OUT, false), "");
    EXPECT_EQ(RunQudex(std::make_error_code(std::errc::timed_out), false), "");
    EXPECT_EQ(RunLspx(TIMED_OUT, false, false), "");
}

TEST(ReceiveCycle, ErrorGoesBeforeWhateverCameWithIt) {
    EXPECT_EQ(RunQudex(IO_ERROR, true), "E21");
    EXPECT_EQ(RunLspx(IO_ERROR, true, false), "E1");
}

TEST(ReceiveCycle, SampleThatIsNotWholeIsNone) {
    EXPECT_EQ(RunQudex({}, false), "N");
    EXPECT_EQ(RunLspx({}, true, false), "N1");
    EXPECT_EQ(RunLspx({}, false, true), "N2");
}

}  // namespace
}  // namespace vosk::lumo
