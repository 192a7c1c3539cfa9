#include "judge/prediction.hpp"

#include <vosk/test/support.hpp>

#include <numeric>

namespace vosk::rig {
namespace {

using ::testing::ElementsAre;

// Two modes. Actuator 0 moves with the first, actuator 1 with twice the second, the others stand still: all
// positions can be worked out on paper.
ModalBasis TwoModes() {
    ModalBasis basis{2, std::vector<float>(defs::M4_CMD_SIZE * 2, 0.0F)};
    basis.matrix[0] = 1.0F;
    basis.matrix[3] = 2.0F;
    return basis;
}

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
    const std::vector<std::size_t> places{0, 1, 2, 4865, 4866, 5351};
    const auto found = [&] {
        std::vector<float> values;
        for (const std::size_t place : places) values.push_back(assembled[place]);
        return values;
    };
    EXPECT_THAT(found(), ElementsAre(3, 4, 5, 4868, 0, 0));
    AssembleCommand(wire, defs::VoskControlMode::INS_DRIVEN_CASCADE, out);
    EXPECT_THAT(found(), ElementsAre(0, 0, 5, 4868, 0, 0));
}

Limitations Limit(const SaturationLimits& limits, bool delta, const std::vector<float>& command,
                  const std::vector<float>& applied) {
    const ProjectionMatrix projection(TwoModes());
    return SaturationModel(limits, delta, 2, projection.Rounding())
        .Limit(projection.Project(command), projection.Project(applied), DistanceOf(command, applied));
}

TEST(SaturationModel, GivesTheFactorsWorkedOutOnPaper) {
    constexpr bool DELTA = true;
    constexpr bool ABSOLUTE = false;
    enum By { Nothing, Velocity, Gap };
    struct Case {
        bool delta;
        SaturationLimits limits;  // of velocity and gap
        std::vector<float> command;
        std::vector<float> applied;
        double factor;
        By by;
    };
    const Case cases[] = {
        {DELTA, {10, 100}, {3, 1}, {1, 0.5}, 1.0, Nothing},
        {DELTA, {4, 100}, {3, 5}, {1, 1}, 0.5, Velocity},     // a step of 2 and 8
        {DELTA, {20, 10}, {3, 7}, {2, 3}, 0.5, Gap},          // from 2 and 6, of 1 and 8: 10 - 6 is left
        {DELTA, {20, 10}, {0, 8}, {0, 6}, -0.5, Gap},         // at 12, of 4 outwards: back to 10
        {DELTA, {2, 10}, {0, 0}, {0, 7}, 1.0 / 7, Velocity},  // at 14, inwards: as fast as 2 allows
        {DELTA, {20, 10}, {16, 4}, {12, 6}, 0.0, Gap},        // at 12, 4 out and 4 in: neither way is smaller
        {ABSOLUTE, {100, 10}, {2, 10}, {0, 0}, 0.5, Gap},     // commanded 20
        {ABSOLUTE, {5, 10}, {2, 10}, {0, 0}, 0.25, Velocity},  // a step of 20 counts more
        {ABSOLUTE, {5, 100}, {9, 0}, {10, 0}, 1.0, Nothing},   // a step of 1 inwards
        {ABSOLUTE, {5, 10}, {0, 0}, {0, 0}, 1.0, Nothing}};
    for (const Case& test : cases) {
        SCOPED_TRACE(&test - cases);
        const Limitations limits = Limit(test.limits, test.delta, test.command, test.applied);
        ASSERT_EQ(limits.count, 1U);
        EXPECT_DOUBLE_EQ(limits.values[0].factor, test.factor);
        EXPECT_EQ(limits.values[0].velocity_limited, test.by == Velocity);
        EXPECT_EQ(limits.values[0].gap_limited, test.by == Gap);
    }
    EXPECT_EQ(Limit({10, 100}, DELTA, {3, 1}, {1, 0.5}).values[0].tolerance, 0.0);
    EXPECT_EQ(Limit({20, 10}, DELTA, {0, 5}, {0, 1}).count, 2U);  // on the very edge of the gap either goes
}

TEST(SaturationModel, MatchesWithinRoundingOnly) {
    const ProjectionMatrix projection(TwoModes());
    const SaturationModel saturation({4, 100}, true, 2, projection.Rounding());
    std::vector<float> command(defs::M4_CMD_SIZE, 0.25F);
    std::vector<float> applied(defs::M4_CMD_SIZE, 0.0F);
    std::vector<float> setpoint = command;
    command[0] = 3.0F;
    command[1] = 5.0F;
    applied[0] = applied[1] = 1.0F;
    const Limitation limitation = Limit({4, 100}, true, command, applied).values[0];
    const auto matches = [&](float first, float second) {
        setpoint[0] = first;
        setpoint[1] = second;
        return saturation.Matches(ConstM4Vector(setpoint), ConstM4Vector(command), ConstM4Vector(applied),
                                  limitation);
    };
    EXPECT_TRUE(matches(2.0F, 3.0F));
    EXPECT_TRUE(matches(2.0F, 3.0F + 1e-6F));
    EXPECT_FALSE(matches(2.0F, 3.00005F));
    EXPECT_FALSE(matches(2.0F, std::numeric_limits<float>::quiet_NaN()));
    // Behind the managed modes nothing may change, not by a bit.
    setpoint[5351] = std::nextafter(0.25F, 1.0F);
    EXPECT_FALSE(matches(2.0F, 3.0F));
}

}  // namespace
}  // namespace vosk::rig
