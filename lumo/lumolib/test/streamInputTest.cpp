#include "testSupport.hpp"

#include <lumolib/streamInput.hpp>

#include <gmock/gmock.h>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/support.hpp>

namespace vosk::lumo {
namespace {

const auto NOW = vosk::test::At(42);

struct ScriptedInput : LspxInput {
    explicit ScriptedInput(const std::shared_ptr<InputStreamState>& state)
        : LspxInput{"Scripted",
                    test::CfgOf("cfg: {busy: false, listen_ip: 127.0.0.1, iface_name: lo, listen_udp: " +
                                std::to_string(vosk::test::UniquePort()) + "}"),
                    {},
                    {.topic = 7, .num_frames = 3},
                    {.data_unit_size = 2},
                    {log4cplus::WARN_LOG_LEVEL, "Scripted: ", state}} {}
    using LspxInput::RunCycle;

    Received Receive() override { return {error, pktwire::lspx::Receiver::Sample{}}; }
    void OnSample(const Leader& /*leader*/, const Trailer& /*trailer*/, time_point /*now*/) override {
        ADD_FAILURE() << "a sample without leader and trailer";
    }

    std::error_code error;
};

TEST(StreamInput, ATimeOutIsSilentAndAnErrorOrHalfASampleIsInvalid) {
    const atomclk::ManualClock clock{NOW};
    const vosk::test::LogCapture log;
    const auto state = std::make_shared<InputStreamState>(DataStreamIdentifier::WFS_GP1);
    ScriptedInput input{state};
    const auto invalid_after = [&](std::error_code error) {
        input.error = error;
        input.RunCycle();
        return state->GetTopicData().invalid_count;
    };
    EXPECT_EQ(invalid_after(std::make_error_code(std::errc::timed_out)), 0U);
    EXPECT_EQ(invalid_after({ETIMEDOUT, std::system_category()}), 0U);
    EXPECT_EQ(invalid_after(std::make_error_code(std::errc::io_error)), 1U);
    EXPECT_EQ(invalid_after({}), 2U);
    EXPECT_EQ(state->GetTopicData().sample_count, 0U);
    EXPECT_THAT(log.Texts("Scripted: ", log4cplus::WARN_LOG_LEVEL),
                testing::ElementsAre("Scripted: Input/output error"));
}

}  // namespace
}  // namespace vosk::lumo
