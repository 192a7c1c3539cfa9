#include <lumolib/performanceData.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

using testing::ElementsAre;
using vosk::defs::FloatVectorTT;
using vosk::lumo::FsInputFlags;
using vosk::lumo::FsInputSource;
using vosk::lumo::PerformanceData;
using vosk::lumo::time_point;
using vosk::pfs::GPID;
using TT = std::array<float, 2>;

namespace {

time_point At(std::int64_t count) {
    return time_point{std::chrono::nanoseconds{count}};
}

TEST(PerformanceData, GuideProbesHaveOwnCommandsAndOneFlag) {
    PerformanceData data;
    data.SetGpCmd(GPID{0}, At(1), TT{1, 2}, false);
    data.SetGpCmd(GPID{2}, At(3), TT{5, 6}, true);
    auto topic = data.GetDataTopic();
    EXPECT_THAT(topic.gp_cmd_time, ElementsAre(At(1), At(0), At(3)));
    EXPECT_THAT(topic.gp_cmd, ElementsAre(FloatVectorTT{1, 2}, FloatVectorTT{0, 0}, FloatVectorTT{5, 6}));
    EXPECT_TRUE(topic.gp_cmd_valid);

    data.SetGpCmdValid(false);
    EXPECT_FALSE(data.GetDataTopic().gp_cmd_valid);
    data.SetGpCmd(GPID{1}, At(4), TT{7, 8}, true);
    EXPECT_TRUE(data.GetDataTopic().gp_cmd_valid);
}

TEST(PerformanceData, RefusesAFourthGuideProbe) {
    PerformanceData data;
    try {
        data.SetGpCmd(GPID{3}, At(1), TT{1, 2}, true);
        FAIL() << "accepted guide probe 3";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Invalid GP_ID");
    }
    EXPECT_FALSE(data.GetDataTopic().gp_cmd_valid);
}

TEST(PerformanceData, KeepsTheMirrorsApart) {
    PerformanceData data;
    data.SetMsFsTt(At(1), TT{1, 2});
    data.SetU4FsTt(At(2), TT{3, 4});
    data.SetU5FsTt(At(3), TT{5, 6}, TT{7, 8});
    const auto topic = data.GetDataTopic();
    EXPECT_EQ(topic.ms_fs_tt_time, At(1));
    EXPECT_EQ(topic.ms_fs_tt, (FloatVectorTT{1, 2}));
    EXPECT_EQ(topic.u4_fs_tt_time, At(2));
    EXPECT_EQ(topic.u4_fs_tt, (FloatVectorTT{3, 4}));
    EXPECT_EQ(topic.u5_fs_tt_time, At(3));
    EXPECT_EQ(topic.u5_fs_tt, (FloatVectorTT{5, 6}));
    EXPECT_EQ(topic.u5_m5_tt, (FloatVectorTT{7, 8}));
}

TEST(PerformanceData, ACentroidErrorClearsTheTipTiltErrorAndNotTheReverse) {
    atomclk::ManualClock clock{At(10)};
    PerformanceData data;
    data.SetTipTiltError(1, 2);
    data.SetCentroidError(3, 4);
    EXPECT_EQ(data.GetWavefrontMetricData().tip_tilt_error, FloatVectorTT{});
    clock.Set(At(11));
    data.SetTipTiltError(5, 6);
    const auto metric = data.GetWavefrontMetricData();
    EXPECT_EQ(metric.wavefront_time, At(11));
    EXPECT_TRUE(metric.wavefront_valid);
    EXPECT_EQ(metric.centroid_error, (FloatVectorTT{3, 4}));
    EXPECT_EQ(metric.tip_tilt_error, (FloatVectorTT{5, 6}));
}

TEST(PerformanceData, CountsFieldStabilisationCyclesByInput) {
    PerformanceData data;
    FsInputFlags flags{};
    flags[static_cast<std::size_t>(FsInputSource::IMG_GP1)] = true;
    flags[static_cast<std::size_t>(FsInputSource::FS_REFERENCE)] = true;
    data.UpdateFSInput(At(5), flags);
    flags[static_cast<std::size_t>(FsInputSource::IMG_GP1)] = false;
    data.UpdateFSInput(At(6), flags);
    data.UpdateFSOutput(At(7), false);
    data.UpdateFSOutput(At(8), true);

    auto telemetry = data.GetFSTelemetryData();
    EXPECT_EQ(telemetry.fs_time, At(6));
    EXPECT_TRUE(telemetry.fs_output_done);
    EXPECT_EQ(telemetry.fs_input_cycles, 2U);
    EXPECT_EQ(telemetry.fs_output_cycles, 2U);
    EXPECT_EQ(telemetry.fs_output_count, 1U);
    EXPECT_THAT(telemetry.fs_input_counts, ElementsAre(1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2));

    data.ResetFSTelemetryData();
    telemetry = data.GetFSTelemetryData();
    EXPECT_EQ(telemetry.fs_time, At(6));
    EXPECT_TRUE(telemetry.fs_output_done);
    EXPECT_EQ(telemetry.fs_input_cycles + telemetry.fs_output_cycles + telemetry.fs_output_count, 0U);
    EXPECT_THAT(telemetry.fs_input_counts, testing::Each(0U));

    data.UpdateFSInput(At(9), flags);
    EXPECT_FALSE(data.GetFSTelemetryData().fs_output_done);
}

}  // namespace
