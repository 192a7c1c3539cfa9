#include <vosk/ao_tasks/m4SaturationManagement.hpp>
#include <vosk/common/math/blas.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <functional>
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

Doubles Project(const Config& config, const std::function<double(std::size_t)>& mode) {
    Doubles actuators(SIZE);
    for (std::size_t row = 0; row < SIZE; ++row) {
        for (std::size_t i = 0; i < config.managed_modes; ++i) {
            actuators[row] += double{config.m2p[row * config.managed_modes + i]} * mode(i);
        }
    }
    return actuators;
}

double Largest(const Doubles& values) {
    double largest = values[0];
    for (double value : values) {
        if (std::abs(value) > std::abs(largest)) largest = value;
    }
    return largest;
}

Doubles Sum(const Doubles& a, double scale, const Doubles& b) {
    Doubles sum(a);
    for (std::size_t i = 0; i < a.size(); ++i) sum[i] += scale * b[i];
    return sum;
}

double DeltaScale(const Config& config, const Doubles& position, const Doubles& change) {
    const double d = std::abs(Largest(change));
    const double scale_vel = d == 0.0 ? 1.0 : std::min(config.threshold_velocity / d, 1.0);
    const double reached = std::abs(Largest(Sum(position, scale_vel, change)));
    if (!(reached > config.threshold_gap)) return scale_vel;
    return (config.threshold_gap - std::abs(Largest(position))) / (d * scale_vel) * scale_vel;
}

double AbsoluteScale(const Config& config, const Doubles& position, const Doubles& change) {
    const double v = std::abs(Largest(Sum(position, 1.0, change)));
    if (v == 0.0) return 1.0;
    const double e = std::abs(Largest(change));
    const double scale_vel_temp = e == 0.0 ? 1.0 : std::min(config.threshold_velocity / e, 1.0);
    const double scale_vel = std::abs(Largest(Sum(position, scale_vel_temp, change))) / v;
    return std::min({1.0, config.threshold_gap / v, scale_vel});
}

Doubles Limit(const Config& config, const Vector& command, const Vector& applied) {
    const auto position = Project(config, [&](std::size_t i) { return double{applied[i]}; });
    const auto change =
        Project(config, [&](std::size_t i) { return double{command[i]} - double{applied[i]}; });
    const double scale =
        config.delta ? DeltaScale(config, position, change) : AbsoluteScale(config, position, change);
    Doubles setpoint(command.begin(), command.end());
    for (std::size_t i = 0; i < config.managed_modes; ++i) {
        const double start = config.delta ? applied[i] : 0.0;
        setpoint[i] = start + scale * (command[i] - start);
    }
    return setpoint;
}

}  // namespace plain

class Random {
public:
    Vector Values(std::size_t count, float spread) {
        std::normal_distribution<float> normal{0.0F, spread};
        Vector values(count);
        for (float& value : values) value = normal(m_engine);
        return values;
    }

private:
    std::mt19937 m_engine{20240607};  // NOLINT(cert-msc51-cpp): the same cases in every run
};

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
    Random random;
    struct Limits {
        float velocity;
        float gap;
    };
    // Free, velocity binds, gap binds, both bind, position already beyond the gap.
    const std::array<Limits, 5> limits{
        {{1e6F, 1e6F}, {0.5F, 1e6F}, {1e6F, 4.5F}, {0.7F, 4.2F}, {0.5F, 1.0F}}};
    for (const std::uint32_t modes : {1U, 7U, 52U, 601U}) {
        const auto spread = static_cast<float>(1.0 / std::sqrt(modes));
        Config config{false, modes, random.Values(SIZE * modes, spread), 0.0F, 0.0F};
        for (int repeat = 0; repeat < 3; ++repeat) {
            const Vector command = random.Values(SIZE, 1.0F);
            const Vector applied = random.Values(SIZE, 1.0F);
            for (const Limits& limit : limits) {
                for (const bool delta : {true, false}) {
                    config.delta = delta;
                    config.threshold_velocity = limit.velocity;
                    config.threshold_gap = limit.gap;
                    const Vector actual = Limit(config, command, applied);
                    const Doubles expected = plain::Limit(config, command, applied);
                    for (std::size_t i = 0; i < SIZE; ++i) {
                        ASSERT_NEAR(actual[i], expected[i], 2e-4 * std::max(1.0, std::abs(expected[i])))
                            << "element " << i << ", modes " << modes << ", delta " << delta << ", velocity "
                            << limit.velocity << ", gap " << limit.gap;
                    }
                }
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
        const std::size_t still = (moving + 1) % MODES;
        config.m2p[row * MODES + moving] = 1.0F;
        Vector command(SIZE);
        command[moving] = 4.0F;
        command[still] = 8.0F;
        const Vector setpoint = Limit(config, command, Vector(SIZE));
        EXPECT_EQ(setpoint[moving], 1.0F) << row;
        EXPECT_EQ(setpoint[still], 2.0F) << row;
        config.m2p[row * MODES + moving] = 0.0F;
    }
}

TEST(M4SaturationManagement, ProjectsAsOneProductOverAllRows) {
    // The scale of a step that the velocity binds shows the projection to the last bit.
    openblas_set_num_threads(1);
    Random random;
    for (const std::uint32_t modes : {3U, 98U, 333U, 2000U}) {
        const Config config{true, modes, random.Values(SIZE * modes, 1.0F), 0.125F, INF};
        const Vector command = random.Values(SIZE, 1.0F);
        Vector change(SIZE);
        cblas_sgemv(CblasRowMajor, CblasNoTrans, static_cast<blasint>(SIZE), static_cast<blasint>(modes),
                    1.0F, config.m2p.data(), static_cast<blasint>(modes), command.data(), 1, 0.0F,
                    change.data(), 1);
        float largest = 0.0F;
        for (float value : change) largest = std::max(largest, std::abs(value));
        Vector expected(modes);
        cblas_saxpy(static_cast<blasint>(modes), 0.125F / largest, command.data(), 1, expected.data(), 1);
        Vector setpoint = Limit(config, command, Vector(SIZE));
        setpoint.resize(modes);
        EXPECT_EQ(setpoint, expected) << modes;
    }
}

struct OnPaper {
    std::string what;
    Config config;
    float command;
    float applied;
    float expected;
};

TEST(M4SaturationManagement, GivesTheValuesWorkedOutOnPaper) {
    const std::vector<OnPaper> cases{
        {"delta: a small step is free", OneMode(true, 2, 100), 3, 2, 3},
        {"delta: a step at the threshold is free", OneMode(true, 2, 100), 4, 2, 4},
        {"delta: twice the threshold goes half the way", OneMode(true, 2, 100), 6, 2, 4},
        {"delta: onto the gap is free", OneMode(true, 8, 5), 5, 2, 5},
        {"delta: across the gap lands on it", OneMode(true, 8, 5), 6, 2, 5},
        {"delta: across the gap lands on it, the velocity binding too", OneMode(true, 4, 5), 10, 2, 5},
        {"delta: from beyond the gap, outward, goes back to it", OneMode(true, 1, 5), 9, 7, 5},
        {"delta: no change within the gap", OneMode(true, 1, 5), 3, 3, 3},
        {"delta: no change beyond the gap", OneMode(true, 1, 5), 7, 7, 7},
        {"delta: no velocity, no step", OneMode(true, 0, 5), 3, 1, 1},
        {"delta: no velocity beyond the gap, no step", OneMode(true, 0, 5), 9, 7, 7},
        {"delta: no limits", OneMode(true, INF, INF), 3e30F, 7, 3e30F},
        {"absolute: within both limits", OneMode(false, 2, 5), 3, 2, 3},
        {"absolute: at both limits", OneMode(false, 3, 5), 5, 2, 5},
        {"absolute: gap binds", OneMode(false, 10, 5), 8, 2, 5},
        {"absolute: velocity binds", OneMode(false, 1, 10), 8, 2, 3},
        {"absolute: commanded to zero passes", OneMode(false, 1, 0), 0, 2, 0},
        {"absolute: no gap, no command", OneMode(false, 10, 0), 8, 2, 0},
        {"absolute: no velocity stays at the position", OneMode(false, 0, 10), 8, 2, 2},
        {"absolute: no change", OneMode(false, 0, 10), 8, 8, 8},
    };
    for (const OnPaper& test : cases) {
        const Vector setpoint = Limit(test.config, Filled(test.command, 77), Filled(test.applied, 11));
        EXPECT_EQ(setpoint, Filled(test.expected, 77)) << test.what << ": " << setpoint[0];
    }
}

TEST(M4SaturationManagement, TakesTheWorstActuatorOfBothSigns) {
    for (const float sign : {1.0F, -1.0F}) {
        Config config = OneMode(true, 1, 100);
        config.m2p[SIZE - 1] = sign * 4.0F;
        EXPECT_EQ(Limit(config, Filled(2), Filled(0))[0], 0.25F);
        config.m2p[0] = sign * 8.0F;
        EXPECT_EQ(Limit(config, Filled(2), Filled(0))[0], 0.125F);
    }
}

TEST(M4SaturationManagement, HoldsTheStepIfThePositionBeyondTheGapCannotBeLeft) {
    // Mode 0 holds the position, mode 1 moves nothing.
    Config config{true, 2, Vector(SIZE * 2), 1.0F, 5.0F};
    for (std::size_t row = 0; row < SIZE; ++row) config.m2p[row * 2] = 1.0F;
    Vector applied(SIZE);
    applied[0] = 7;
    Vector command = applied;
    command[1] = 3;
    EXPECT_EQ(Limit(config, command, applied), applied);
}

TEST(M4SaturationManagement, PassesEverythingWithoutManagedModes) {
    Random random;
    const Vector command = random.Values(SIZE, 1e9F);
    for (const bool delta : {true, false}) {
        EXPECT_EQ(Limit({delta, 0, {}, 0, 0}, command, random.Values(SIZE, 1)), command);
    }
}

TEST(M4SaturationManagement, RecoversFromValuesThatAreNoNumbers) {
    for (const bool delta : {true, false}) {
        auto block = std::make_unique<M4SaturationManagement>(OneMode(delta, 2, 100));
        Vector setpoint(SIZE);
        const auto work = [&](float command, float applied) {
            const Vector command_vector = Filled(command, 77);
            const Vector applied_vector = Filled(applied);
            using In = std::span<const float, SIZE>;
            block->Work(In{command_vector}, In{applied_vector}, std::span<float, SIZE>{setpoint});
            for (std::size_t i = 1; i < SIZE; ++i) ASSERT_EQ(setpoint[i], 77.0F);
        };
        for (const float bad : {NAN_F, INF, -INF}) {
            work(bad, 1.0F);
            work(1.0F, bad);
            work(3.0F, 2.0F);
            EXPECT_EQ(setpoint[0], 3.0F) << bad << ", delta " << delta;
        }
        work(INF, 1.0F);
        EXPECT_EQ(setpoint[0], delta ? 1.0F : 0.0F) << "an infinite step is none";
    }
}

TEST(M4SaturationManagement, RefusesABadConfiguration) {
    const auto refusal = [](const Config& config) -> std::string {
        try {
            M4SaturationManagement{config};
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "taken";
    };
    const std::string velocity =
        "M4SaturationManagement: ERROR: Wrong 'delta_threshold', must be a positive value.";
    const std::string gap = "M4SaturationManagement: ERROR: Wrong 'gap_threshold', must be a positive value.";
    EXPECT_EQ(refusal(OneMode(true, 0, 0)), "taken");
    EXPECT_EQ(refusal(OneMode(true, -1, -1)), velocity);
    EXPECT_EQ(refusal(OneMode(true, NAN_F, 0)), velocity);
    EXPECT_EQ(refusal(OneMode(true, 0, -1)), gap);
    EXPECT_EQ(refusal(OneMode(true, 0, NAN_F)), gap);
    EXPECT_EQ(
        refusal({true, 2, Vector(SIZE), -1, 0}),
        "M4SaturationManagement: ERROR: Wrong size of the M2P projection matrix, size = 5352, but should be "
        "5352 x 2 = 10704");
    EXPECT_EQ(refusal({true, 5353, Vector(SIZE * 5353), 0, 0}),
              "M4SaturationManagement: ERROR: Wrong 'managed_modes', must be at most 5352, but is 5353.");
    Config config = OneMode(true, 0, 0);
    config.m2p[SIZE - 1] = NAN_F;
    EXPECT_EQ(refusal(config),
              "M4SaturationManagement: ERROR: The M2P projection matrix holds a value that is not finite.");
}

}  // namespace
