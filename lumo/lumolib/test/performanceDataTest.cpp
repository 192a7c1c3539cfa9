#include <lumolib/performanceData.hpp>

#include <vosk/test/support.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

using testing::ElementsAre;
using vosk::defs::FloatVectorTT;
using vosk::lumo::FsInputFlags;
using vosk::lumo::PerformanceData;
using vosk::pfs::GPID;
using vosk::test::At;
using TT = std::array<float, 2>;

namespace {

TEST(PerformanceData, GuideProbesHaveOwnCommandsAndOneFlag) {
    PerformanceData data;
    data.SetGpCmd(GPID{0}, At(1), TT{1, 2}, true);
    data.SetGpCmd(GPID{2}, At(3), TT{5, 6}, false);
    EXPECT_EQ(vosk::test::TextOf<std::runtime_error>([&] {
                  data.SetGpCmd(GPID{3}, At(1), TT{1, 2}, true);
              }),
              "Invalid GP_ID");
    const auto topic = data.GetDataTopic();
    EXPECT_THAT(topic.gp_cmd_time, ElementsAre(At(1), At(0), At(3)));
    EXPECT_THAT(topic.gp_cmd, ElementsAre(FloatVectorTT{1, 2}, FloatVectorTT{0, 0}, FloatVectorTT{5, 6}));
    EXPECT_FALSE(topic.gp_cmd_valid);
}

TEST(PerformanceData, ACentroidErrorClearsTheTipTiltErrorAndNotTheReverse) {
    PerformanceData data;
    data.SetTipTiltError(1, 2);
    data.SetCentroidError(3, 4);
    EXPECT_EQ(data.GetWavefrontMetricData().tip_tilt_error, FloatVectorTT{});
    data.SetTipTiltError(5, 6);
    EXPECT_EQ(data.GetWavefrontMetricData().centroid_error, (FloatVectorTT{3, 4}));
}

TEST(PerformanceData, CountsFieldStabilisationCyclesByInput) {
    PerformanceData data;
    FsInputFlags flags{true};
    flags.back() = true;
    data.UpdateFSInput(At(5), flags);
    data.UpdateFSOutput(At(7), false);
    data.UpdateFSOutput(At(8), true);
    auto telemetry = data.GetFSTelemetryData();
    EXPECT_EQ(telemetry.fs_input_cycles, 1U);
    EXPECT_EQ(telemetry.fs_output_cycles, 2U);
    EXPECT_EQ(telemetry.fs_output_count, 1U);
    EXPECT_THAT(telemetry.fs_input_counts, ElementsAre(1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1));

    data.ResetFSTelemetryData();  // spares the time and the flag
    telemetry = data.GetFSTelemetryData();
    EXPECT_EQ(telemetry.fs_time, At(5));
    EXPECT_TRUE(telemetry.fs_output_done);
    EXPECT_EQ(telemetry.fs_input_cycles + telemetry.fs_output_cycles + telemetry.fs_output_count, 0U);
    EXPECT_THAT(telemetry.fs_input_counts, testing::Each(0U));
}

}  // namespace
