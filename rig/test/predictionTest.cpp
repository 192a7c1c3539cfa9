#include "prediction.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numeric>

namespace vosk::rig {
namespace {

// Two modes. Actuator 0 moves with the first, actuator 1 with twice the second, the others stand still: all
// positions can be worked out on paper.
ModalBasis TwoModes() {
    ModalBasis basis{2, std::vector<float>(defs::M4_CMD_SIZE * 2, 0.0F)};
    basis.matrix[0] = 1.0F;
    basis.matrix[3] = 2.0F;
    return basis;
}

struct Fixture {
    explicit Fixture(SaturationLimits limits, bool delta)
        : projection(TwoModes()), saturation(limits, delta, 2, projection.Rounding()) {}

    Limitations Limit(const std::vector<float>& command, const std::vector<float>& applied) const {
        return saturation.Limit(projection.Project(command), projection.Project(applied),
                                DistanceOf(command, applied));
    }

    ProjectionMatrix projection;
    SaturationModel saturation;
};

TEST(ProjectionMatrix, ProjectsSeveralVectorsAsOne) {
    const ProjectionMatrix projection(TwoModes());
    std::vector<std::vector<float>> vectors;
    for (int i = 0; i < 11; ++i) vectors.push_back({static_cast<float>(i), 0.5F});
    const std::vector<std::span<const float>> spans(vectors.begin(), vectors.end());
    std::vector<Positions> positions(spans.size());
    projection.Project(spans, positions);
    for (std::size_t i = 0; i < positions.size(); ++i) {
        EXPECT_EQ(positions[i].actuators[0], static_cast<double>(i));
        EXPECT_EQ(positions[i].actuators[1], 1.0);
        EXPECT_EQ(positions[i].actuators[2], 0.0);
    }
}

TEST(AssembleCommand, TakesTipTiltFromTheSecondPairInSequentialModeOnly) {
    std::vector<float> command(defs::WAVEFRONT_CMD_SIZE);
    std::iota(command.begin(), command.end(), 1.0F);
    std::vector<float> assembled(defs::M4_CMD_SIZE, -1.0F);
    const std::span<const float, defs::WAVEFRONT_CMD_SIZE> wire(command);
    const M4Vector out(assembled.data(), defs::M4_CMD_SIZE);

    AssembleCommand(wire, defs::VoskControlMode::INS_DRIVEN_SEQUENTIAL, out);
    EXPECT_EQ(assembled[0], 3.0F);
    EXPECT_EQ(assembled[1], 4.0F);
    EXPECT_EQ(assembled[2], 5.0F);
    EXPECT_EQ(assembled[4865], 4868.0F);
    EXPECT_EQ(assembled[4866], 0.0F);
    EXPECT_EQ(assembled[5351], 0.0F);

    AssembleCommand(wire, defs::VoskControlMode::INS_DRIVEN_CASCADE, out);
    EXPECT_EQ(assembled[0], 0.0F);
    EXPECT_EQ(assembled[1], 0.0F);
    EXPECT_EQ(assembled[2], 5.0F);
}

TEST(SaturationModel, DeltaPassesASmallStepExactly) {
    const Fixture fixture({10.0F, 100.0F}, true);
    const Limitations limits = fixture.Limit({3.0F, 1.0F}, {1.0F, 0.5F});
    ASSERT_EQ(limits.count, 1U);
    EXPECT_EQ(limits.values[0].factor, 1.0);
    EXPECT_EQ(limits.values[0].tolerance, 0.0);
    EXPECT_FALSE(limits.values[0].velocity_limited);
}

TEST(SaturationModel, DeltaHalvesAStepOfTwiceTheLimit) {
    // Steps: actuator 0 by 2, actuator 1 by 2 * 4 = 8; the limit is 4.
    const Fixture fixture({4.0F, 100.0F}, true);
    const Limitations limits = fixture.Limit({3.0F, 5.0F}, {1.0F, 1.0F});
    ASSERT_EQ(limits.count, 1U);
    EXPECT_DOUBLE_EQ(limits.values[0].factor, 0.5);
    EXPECT_TRUE(limits.values[0].velocity_limited);
}

TEST(SaturationModel, DeltaLandsOnTheGapFromTheLargestPosition) {
    // From 2 and 6, a step of 1 and 8, would lead to 14; the gap at 10 leaves (10 - 6) / 8 of it.
    const Fixture fixture({20.0F, 10.0F}, true);
    const Limitations limits = fixture.Limit({3.0F, 7.0F}, {2.0F, 3.0F});
    ASSERT_EQ(limits.count, 1U);
    EXPECT_DOUBLE_EQ(limits.values[0].factor, 0.5);
    EXPECT_TRUE(limits.values[0].gap_limited);
}

TEST(SaturationModel, DeltaStepsBackFromBeyondTheGap) {
    // At 12 with the gap at 10 and a step of 4 outwards: (10 - 12) / 4.
    const Fixture fixture({20.0F, 10.0F}, true);
    const Limitations limits = fixture.Limit({0.0F, 8.0F}, {0.0F, 6.0F});
    ASSERT_EQ(limits.count, 1U);
    EXPECT_DOUBLE_EQ(limits.values[0].factor, -0.5);
}

TEST(SaturationModel, DeltaAllowsBothOutcomesOnTheVeryEdgeOfTheGap) {
    const Fixture fixture({20.0F, 10.0F}, true);
    EXPECT_EQ(fixture.Limit({0.0F, 5.0F}, {0.0F, 1.0F}).count, 2U);
}

TEST(SaturationModel, AbsoluteScalesTheWholeCommand) {
    // Commanded 2 and 20, gap 10: one half. The step of 20 with a limit of 5 gives a quarter, and that
    // counts.
    const std::vector<float> command{2.0F, 10.0F};
    const std::vector<float> nowhere{0.0F, 0.0F};
    EXPECT_DOUBLE_EQ(Fixture({100.0F, 10.0F}, false).Limit(command, nowhere).values[0].factor, 0.5);
    const Limitation by_step = Fixture({5.0F, 10.0F}, false).Limit(command, nowhere).values[0];
    EXPECT_DOUBLE_EQ(by_step.factor, 0.25);
    EXPECT_TRUE(by_step.velocity_limited);
    EXPECT_FALSE(by_step.gap_limited);
    EXPECT_DOUBLE_EQ(Fixture({5.0F, 10.0F}, false).Limit(nowhere, nowhere).values[0].factor, 1.0);
}

TEST(SaturationModel, MatchesWithinRoundingOnly) {
    const Fixture fixture({4.0F, 100.0F}, true);
    std::vector<float> command(defs::M4_CMD_SIZE, 0.25F);
    std::vector<float> applied(defs::M4_CMD_SIZE, 0.0F);
    command[0] = 3.0F;
    command[1] = 5.0F;
    applied[0] = 1.0F;
    applied[1] = 1.0F;
    const Limitation limitation = fixture.Limit(command, applied).values[0];
    std::vector<float> setpoint = command;
    setpoint[0] = 2.0F;
    setpoint[1] = 3.0F;
    const auto matches = [&] {
        return fixture.saturation.Matches(ConstM4Vector(setpoint), ConstM4Vector(command),
                                          ConstM4Vector(applied), limitation);
    };
    EXPECT_TRUE(matches());
    setpoint[1] = 3.0F + 1e-6F;
    EXPECT_TRUE(matches());
    setpoint[1] = 3.01F;
    EXPECT_FALSE(matches());
    setpoint[1] = std::numeric_limits<float>::quiet_NaN();
    EXPECT_FALSE(matches());
    // Behind the managed modes nothing may change, not by a bit.
    setpoint[1] = 3.0F;
    setpoint[5351] = std::nextafter(0.25F, 1.0F);
    EXPECT_FALSE(matches());
}

TEST(ModalBasis, IsTipTiltAndNormalised) {
    const ModalBasis basis = MakeModalBasis(30);
    for (std::uint32_t mode = 0; mode < basis.modes; ++mode) {
        double squares = 0.0;
        for (std::size_t actuator = 0; actuator < defs::M4_CMD_SIZE; ++actuator) {
            const double value = basis.matrix[actuator * basis.modes + mode];
            squares += value * value;
        }
        EXPECT_NEAR(squares / defs::M4_CMD_SIZE, 1.0, 0.02) << mode;
    }
    // Tip and tilt are twice the two coordinates, so their squares are four times that of the radius.
    const std::size_t actuator = 4000;
    const double tip = basis.matrix[actuator * basis.modes];
    const double tilt = basis.matrix[actuator * basis.modes + 1];
    EXPECT_NEAR(tip * tip + tilt * tilt, 4.0 * (actuator + 0.5) / defs::M4_CMD_SIZE, 1e-5);
}

}  // namespace
}  // namespace vosk::rig
