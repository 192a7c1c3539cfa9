#include <vosk/ao_tasks/m4SaturationManagement.hpp>
#include <vosk/common/math/blas.hpp>
#include <vosk/test/support.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <limits>
#include <memory>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using vosk::ao_tasks::M4SaturationManagement;
using Config = M4SaturationManagement::Config;

constexpr std::size_t SIZE = M4SaturationManagement::M4_CMD_SIZE;
constexpr float NAN_F = std::numeric_limits<float>::quiet_NaN();
constexpr float INF = std::numeric_limits<float>::infinity();
using Vector = std::vector<float>;
using Doubles = std::vector<double>;

Vector Limit(const Config& config, const Vector& command, const Vector& applied) {
    auto block = std::make_unique<M4SaturationManagement>(config);
    Vector setpoint(SIZE, -1.0F);
    using In = std::span<const float, SIZE>;
    block->Work(In{command}, In{applied}, std::span<float, SIZE>{setpoint});
    return setpoint;
}

// The plain form: double precision, one loop a step.
namespace plain {

Doubles Project(const Config& config, const Doubles& modes) {
    Doubles actuators(SIZE);
    auto element = config.m2p.begin();
    for (double& actuator : actuators) {
        for (std::size_t i = 0; i < config.managed_modes; ++i) actuator += double{*element++} * modes[i];
    }
    return actuators;
}

// The largest magnitude of a + scale * b.
double Largest(const Doubles& a, double scale, const Doubles& b) {
    double largest = 0.0;
    for (std::size_t i = 0; i < SIZE; ++i) largest = std::max(largest, std::abs(a[i] + scale * b[i]));
    return largest;
}

double Scale(const Config& config, const Doubles& position, const Doubles& change) {
    const double d = Largest(change, 0.0, change);
    const double scale_vel = d == 0.0 ? 1.0 : std::min(config.threshold_velocity / d, 1.0);
    const double reached = Largest(position, scale_vel, change);
    if (config.delta) {
        if (!(reached > config.threshold_gap)) return scale_vel;
        return (config.threshold_gap - Largest(position, 0.0, position)) / d;
    }
    const double commanded = Largest(position, 1.0, change);
    return commanded == 0.0 ? 1.0 : std::min({1.0, config.threshold_gap / commanded, reached / commanded});
}

Doubles Limit(const Config& config, const Vector& command, const Vector& applied) {
    const Doubles position(applied.begin(), applied.end());
    Doubles change(command.begin(), command.end());
    for (std::size_t i = 0; i < SIZE; ++i) change[i] -= position[i];
    const double scale = Scale(config, Project(config, position), Project(config, change));
    Doubles setpoint(command.begin(), command.end());
    for (std::size_t i = 0; i < config.managed_modes; ++i) {
        const double start = config.delta ? position[i] : 0.0;
        setpoint[i] = start + scale * (setpoint[i] - start);
    }
    return setpoint;
}

}  // namespace plain

Vector Random(std::size_t count, float spread = 1.0F) {
    static std::mt19937 engine{20240607};  // NOLINT(cert-msc51-cpp): the same cases in every run
    std::normal_distribution<float> normal{0.0F, spread};
    Vector values(count);
    for (float& value : values) value = normal(engine);
    return values;
}

// One managed mode that moves every actuator by its own value, so that limits can be worked out on paper.
Config OneMode(bool delta, float velocity, float gap) {
    return {delta, 1, Vector(SIZE, 1.0F), velocity, gap};
}

Vector Filled(float managed, float rest = 0.0F) {
    Vector values(SIZE, rest);
    values[0] = managed;
    return values;
}

TEST(M4SaturationManagement, AgreesWithThePlainForm) {
    // Free, velocity binds, gap binds, both bind, position already beyond the gap.
    const std::array<std::array<float, 2>, 5> limits{
        {{1e6F, 1e6F}, {0.5F, 1e6F}, {1e6F, 4.5F}, {0.7F, 4.2F}, {0.5F, 1.0F}}};
    for (const std::uint32_t modes : {1U, 7U, 52U, 601U}) {
        const auto spread = static_cast<float>(1.0 / std::sqrt(modes));
        Config config{false, modes, Random(SIZE * modes, spread), 0.0F, 0.0F};
        const Vector command = Random(SIZE);
        const Vector applied = Random(SIZE);
        for (std::size_t i = 0; i < 2 * limits.size(); ++i) {
            config.delta = i % 2 == 1;
            config.threshold_velocity = limits[i / 2][0];
            config.threshold_gap = limits[i / 2][1];
            const Vector actual = Limit(config, command, applied);
            const Doubles expected = plain::Limit(config, command, applied);
            for (std::size_t k = 0; k < SIZE; ++k) {
                ASSERT_NEAR(actual[k], expected[k], 2e-4 * std::max(1.0, std::abs(expected[k])))
                    << "element " << k << ", modes " << modes << ", case " << i;
            }
        }
    }
}

TEST(M4SaturationManagement, ReadsAllRowsOfALargeMatrix) {
    // Only one actuator moves, by one mode: wherever it stands, the limit must find it.
    constexpr std::uint32_t MODES = 1500;
    Config config{true, MODES, Vector(SIZE * MODES), 1.0F, 100.0F};
    for (const std::size_t row : {std::size_t{0}, std::size_t{7}, std::size_t{8}, SIZE / 2, SIZE - 1}) {
        const std::size_t moving = row % MODES;
        config.m2p[row * MODES + moving] = 1.0F;
        Vector command(SIZE);
        command[moving] = 4.0F;
        EXPECT_EQ(Limit(config, command, Vector(SIZE))[moving], 1.0F) << row;
        config.m2p[row * MODES + moving] = 0.0F;
    }
}

TEST(M4SaturationManagement, ProjectsAsOneProductOverAllRows) {
    // The scale of a step that the velocity binds shows the projection to the last bit.
    openblas_set_num_threads(1);
    for (const std::uint32_t modes : {3U, 98U, 333U, 2000U}) {
        const Config config{true, modes, Random(SIZE * modes), 0.125F, INF};
        const Vector command = Random(SIZE);
        Vector change(SIZE);
        vosk::common::math::cblas_MultiplyMatrixByVector(CblasNoTrans, 1.0F, config.m2p,
                                                         std::span{command}.first(modes), 0.0F, change);
        float largest = 0.0F;
        for (float value : change) largest = std::max(largest, std::abs(value));
        Vector expected(modes);
        vosk::common::math::cblas_AddVectors(0.125F / largest, std::span{command}.first(modes), expected);
        Vector setpoint = Limit(config, command, Vector(SIZE));
        setpoint.resize(modes);
        EXPECT_EQ(setpoint, expected) << modes;
    }
}

TEST(M4SaturationManagement, GivesTheValuesWorkedOutOnPaper) {
    struct OnPaper {
        std::string what;
        Config config;
        float command;
        float applied;
        float expected;
    };
    const std::vector<OnPaper> cases{
        {"delta: a step at the threshold is free", OneMode(true, 2, 100), 4, 2, 4},
        {"delta: twice the threshold goes half the way", OneMode(true, 2, 100), 6, 2, 4},
        {"delta: onto the gap is free", OneMode(true, 8, 5), 5, 2, 5},
        {"delta: across the gap lands on it, the velocity binding too", OneMode(true, 4, 5), 10, 2, 5},
        {"delta: from beyond the gap, outward, goes back to it", OneMode(true, 1, 5), 9, 7, 5},
        {"delta: no change beyond the gap", OneMode(true, 1, 5), 7, 7, 7},
        {"delta: no velocity, no step", OneMode(true, 0, 5), 3, 1, 1},
        {"delta: no velocity beyond the gap, no step", OneMode(true, 0, 5), 9, 7, 7},
        {"delta: no limits", OneMode(true, INF, INF), 3e30F, 7, 3e30F},
        {"delta: an infinite step is none", OneMode(true, 2, 100), INF, 1, 1},
        {"absolute: at both limits", OneMode(false, 3, 5), 5, 2, 5},
        {"absolute: gap binds", OneMode(false, 10, 5), 8, 2, 5},
        {"absolute: velocity binds", OneMode(false, 1, 10), 8, 2, 3},
        {"absolute: commanded to zero passes", OneMode(false, 1, 0), 0, 2, 0},
        {"absolute: no gap, no command", OneMode(false, 10, 0), 8, 2, 0},
        {"absolute: no velocity stays at the position", OneMode(false, 0, 10), 8, 2, 2},
        {"absolute: an infinite command is none", OneMode(false, 2, 100), INF, 1, 0},
        {"delta: nothing managed", {true, 0, {}, 0, 0}, 1e9F, 2, 1e9F},
        {"absolute: nothing managed", {false, 0, {}, 0, 0}, 1e9F, 2, 1e9F},
    };
    for (const OnPaper& test : cases) {
        const Vector setpoint = Limit(test.config, Filled(test.command, 77), Filled(test.applied, 11));
        EXPECT_EQ(setpoint, Filled(test.expected, 77)) << test.what << ": " << setpoint[0];
    }
}

TEST(M4SaturationManagement, RefusesABadConfiguration) {
    const auto refusal = [](const Config& config) {
        return vosk::test::TextOf<std::runtime_error>([&] { M4SaturationManagement{config}; });
    };
    const std::string error = "M4SaturationManagement: ERROR: ";
    const std::string velocity = error + "Wrong 'delta_threshold', must be a positive value.";
    const std::string gap = error + "Wrong 'gap_threshold', must be a positive value.";
    EXPECT_EQ(refusal(OneMode(true, -1, -1)), velocity);
    EXPECT_EQ(refusal(OneMode(true, NAN_F, 0)), velocity);
    EXPECT_EQ(refusal(OneMode(true, 0, -1)), gap);
    EXPECT_EQ(refusal(OneMode(true, 0, NAN_F)), gap);
    EXPECT_EQ(refusal({true, 2, Vector(SIZE), -1, 0}),
              error + "Wrong size of the M2P projection matrix, size = 5352, but should be 5352 x 2 = 10704");
    EXPECT_EQ(refusal({true, 5353, Vector(SIZE * 5353), 0, 0}),
              error + "Wrong 'managed_modes', must be at most 5352, but is 5353.");
    Config config = OneMode(true, 0, 0);
    config.m2p[SIZE - 1] = NAN_F;
    EXPECT_EQ(refusal(config), error + "The M2P projection matrix holds a value that is not finite.");
}

}  // namespace
