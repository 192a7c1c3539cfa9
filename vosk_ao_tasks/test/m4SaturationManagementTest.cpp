#include <vosk/ao_tasks/m4SaturationManagement.hpp>
#include <vosk/test/allocationCount.hpp>
#include <vosk/test/support.hpp>

#include <random>

namespace {

using vosk::ao_tasks::M4SaturationManagement;
using Config = M4SaturationManagement::Config;

constexpr std::size_t SIZE = M4SaturationManagement::M4_CMD_SIZE;
constexpr float NAN_F = std::numeric_limits<float>::quiet_NaN();
constexpr float INF = std::numeric_limits<float>::infinity();
using Vector = std::vector<float>;

// The setpoint, and whether the projection was finite.
std::pair<Vector, bool> Work(const Config& config, const Vector& command, const Vector& applied) {
    auto block = std::make_unique<M4SaturationManagement>(config);
    Vector setpoint(SIZE, -1.0F);
    using In = std::span<const float, SIZE>;
    const auto before = vosk::test::AllocationsOfThisThread();
    block->Work(In{command}, In{applied}, std::span<float, SIZE>{setpoint});
    EXPECT_EQ(vosk::test::AllocationsOfThisThread(), before);
    return {setpoint, block->IsProjectionFinite()};
}

Vector Limit(const Config& config, const Vector& command, const Vector& applied) {
    return Work(config, command, applied).first;
}

Vector Random(std::size_t count) {
    static std::mt19937 engine{20240607};  // NOLINT(cert-msc51-cpp): the same cases in every run
    std::normal_distribution<float> normal{0.0F, 1.0F};
    Vector values(count);
    for (float& value : values) value = normal(engine);
    return values;
}

// One managed mode that moves every actuator by its own value, so that limits can be worked out on paper.
Config OneMode(bool delta, float velocity, float gap) {
    return {delta, 1, Vector(SIZE, 1.0F), velocity, gap};
}

// Two modes, of which the first moves the first actuator by its value and the second the last one by twice
// its value.
Config TwoModes(bool delta, float velocity, float gap) {
    Config config{delta, 2, Vector(2 * SIZE), velocity, gap};
    config.m2p.front() = 1.0F;
    config.m2p.back() = 2.0F;
    return config;
}

Vector Filled(const Vector& managed, float rest = 0.0F) {
    Vector values(SIZE, rest);
    std::copy(managed.begin(), managed.end(), values.begin());
    return values;
}

TEST(M4SaturationManagement, ReadsAllRowsOfALargeMatrix) {
    // Only one actuator moves, by one mode: wherever it stands, each limit must find it.
    constexpr std::uint32_t MODES = 1500;
    for (const std::size_t row : {std::size_t{0}, std::size_t{7}, std::size_t{8}, SIZE / 2, SIZE - 1}) {
        const std::size_t mode = row % MODES;
        Config config{true, MODES, Vector(SIZE * MODES), 0.5F, INF};
        config.m2p[row * MODES + mode] = 1.0F;
        Vector command(SIZE);
        Vector applied(SIZE);
        command[mode] = 4.0F;
        applied[mode] = 2.0F;
        EXPECT_EQ(Limit(config, command, applied)[mode], 2.5F) << row;
        config.threshold_velocity = INF;
        config.threshold_gap = 3.0F;
        EXPECT_EQ(Limit(config, command, applied)[mode], 3.0F) << row;
    }
}

TEST(M4SaturationManagement, GivesTheValuesWorkedOutOnPaper) {
    struct OnPaper {
        std::string what;
        Config config;
        Vector command;
        Vector applied;
        Vector expected;
    };
    const std::vector<OnPaper> cases{
        {"delta: a step at the threshold is free", OneMode(true, 2, 100), {4}, {2}, {4}},
        {"delta: twice the threshold goes half the way", OneMode(true, 2, 100), {6}, {2}, {4}},
        {"delta: onto the gap is free", OneMode(true, 8, 5), {5}, {2}, {5}},
        {"delta: across the gap lands on it, the velocity binding too", OneMode(true, 4, 5), {10}, {2}, {5}},
        {"delta: from beyond the gap, outward, goes back to it", OneMode(true, 1, 5), {9}, {7}, {5}},
        {"delta: from beyond the gap, inward, goes as it is", OneMode(true, 1, 5), {0}, {7}, {6}},
        {"delta: beyond the gap, inward for the outermost", TwoModes(true, 8, 5), {7, 2}, {6, 4}, {7, 2}},
        {"delta: beyond the gap, no way leads inward", TwoModes(true, 1, 5), {8, 4}, {7, -3.5F}, {7, -3.5F}},
        {"delta: no change beyond the gap", OneMode(true, 1, 5), {7}, {7}, {7}},
        {"delta: no velocity, no step", OneMode(true, 0, 5), {3}, {1}, {1}},
        {"delta: no velocity beyond the gap, no step", OneMode(true, 0, 5), {9}, {7}, {7}},
        {"delta: no limits", OneMode(true, INF, INF), {3e30F}, {7}, {3e30F}},
        {"delta: an infinite step is none", OneMode(true, 2, 100), {INF}, {1}, {1}},
        {"absolute: at both limits", OneMode(false, 3, 5), {5}, {2}, {5}},
        {"absolute: gap binds", OneMode(false, 10, 5), {8}, {2}, {5}},
        {"absolute: velocity binds", OneMode(false, 1, 10), {8}, {2}, {3}},
        {"absolute: commanded to zero passes", OneMode(false, 1, 0), {0}, {2}, {0}},
        {"absolute: no gap, no command", OneMode(false, 10, 0), {8}, {2}, {0}},
        {"absolute: no velocity stays at the position", OneMode(false, 0, 10), {8}, {2}, {2}},
        {"absolute: an infinite command is none", OneMode(false, 2, 100), {INF}, {1}, {0}},
        {"delta: a step of 1 and 8", TwoModes(true, 4, 100), {3, 5}, {2, 1}, {2.5F, 3}},
        {"delta: to 1 and 14, gap 10, from 2 and 6", TwoModes(true, 20, 10), {1, 7}, {2, 3}, {1.5F, 5}},
        {"delta: by 7 to 1, by 1 to 9", TwoModes(true, 7, 10), {1, 4.5F}, {-6, 4}, {1, 4.5F}},
        {"absolute: to 2 and 20, gap 10", TwoModes(false, 100, 10), {2, 10}, {0, 0}, {1, 5}},
        {"absolute: half the way to 3 and 8", TwoModes(false, 4, 100), {-3, 4}, {5, 2}, {-2.25F, 3}},
        {"delta: nothing managed", {true, 0, {}, 0, 0}, {1e9F}, {2}, {1e9F}},
        {"absolute: nothing managed", {false, 0, {}, 0, 0}, {1e9F}, {2}, {1e9F}},
    };
    for (const OnPaper& test : cases) {
        const Vector setpoint = Limit(test.config, Filled(test.command, 77), Filled(test.applied, 11));
        EXPECT_EQ(setpoint, Filled(test.expected, 77))
            << test.what << ": " << setpoint[0] << ", " << setpoint[1];
    }
}

float LargestPosition(const Config& config, const Vector& modes) {
    float largest = 0.0F;
    for (auto row = config.m2p.begin(); row != config.m2p.end(); row += config.managed_modes)
        largest = std::max(
            largest, std::abs(std::inner_product(row, row + config.managed_modes, modes.begin(), 0.0F)));
    return largest;
}

// Whatever is commanded: from beyond the gap M4 only comes back, from within it stays within.
TEST(M4SaturationManagement, NoEchoedStepLeadsFurtherOutThanTheGap) {
    constexpr std::uint32_t MODES = 3;
    const Vector scales = Random(400);
    for (std::size_t i = 0; i < scales.size(); i += 2) {
        const Config config{true, MODES, Random(SIZE * MODES), std::abs(scales[i]), 4.0F};
        Vector applied = Random(SIZE);
        for (int cycle = 0; cycle < 5; ++cycle) {
            Vector command = Random(SIZE);
            for (float& value : command) value *= 3.0F * scales[i + 1];
            const float before = LargestPosition(config, applied);
            applied = Limit(config, command, applied);
            const float after = LargestPosition(config, applied);
            ASSERT_LE(after, std::max(before, config.threshold_gap) * 1.00001F) << i << ", " << cycle;
        }
    }
}

// The first actuator's projection is infinity minus infinity, the last one's overflows.
TEST(M4SaturationManagement, SaysWhereAFiniteCommandHasNoFinitePosition) {
    for (const bool delta : {true, false}) {
        Config config{delta, 2, Vector(2 * SIZE), 1, 5};
        auto& matrix = config.m2p;
        const auto is_finite = [&](const Vector& command, const Vector& applied = {}) {
            return Work(config, Filled(command), Filled(applied)).second;
        };
        matrix[0] = 2.0F;
        matrix[1] = -2.0F;
        EXPECT_FALSE(is_finite({3e38F, 3e38F}));
        EXPECT_TRUE(is_finite({1e38F, 1e38F}));
        matrix = Vector(2 * SIZE);
        matrix.back() = 2.0F;
        EXPECT_FALSE(is_finite({0, 3e38F}));
        // Only the sum of position and step overflows, unless the step is cut before.
        EXPECT_EQ(is_finite({0, 1.9e38F}, {0, 1e38F}), delta);
        config.threshold_velocity = INF;
        EXPECT_FALSE(is_finite({0, 1.9e38F}, {0, 1e38F}));
    }
}

TEST(M4SaturationManagement, RefusesABadConfiguration) {
    Config not_finite = OneMode(true, 0, 0);
    not_finite.m2p[SIZE - 1] = NAN_F;
    const std::pair<Config, std::string> cases[]{
        {OneMode(true, -1, 0), "Wrong 'delta_threshold'"},
        {OneMode(true, NAN_F, 0), "Wrong 'delta_threshold'"},
        {OneMode(true, 0, NAN_F), "Wrong 'gap_threshold'"},
        {{true, 2, Vector(SIZE), 0, 0}, "size = 5352, but should be 5352 x 2 = 10704"},
        {{true, 5353, Vector(SIZE * 5353), 0, 0}, "Wrong 'managed_modes'"},
        {not_finite, "a value that is not finite"}};
    for (const auto& [config, text] : cases) {
        EXPECT_THAT(vosk::test::TextOf<std::runtime_error>([&c = config] { M4SaturationManagement{c}; }),
                    testing::HasSubstr(text));
    }
}

}  // namespace
