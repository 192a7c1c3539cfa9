#include "cameras/frameRenderer.hpp"

#include "cameras/renderRow.hpp"
#include "portableRandom.hpp"

#include <gmock/gmock.h>
#include <hwy/targets.h>

#include <cmath>
#include <stdexcept>

namespace vosk::rig {
namespace {

std::shared_ptr<const CameraSensor> Sensor(const CameraModel& model) {
    return std::make_shared<const CameraSensor>(MakeSensor(model, 1));
}

// A row by every instruction set that this machine has: one that fuses or reorders what is told to be rounded
// one by one gives other counts.
class OnEachInstructionSet : public testing::TestWithParam<std::int64_t> {
public:
    OnEachInstructionSet() { hwy::GetChosenTarget().Update(GetParam()); }
    ~OnEachInstructionSet() override { hwy::GetChosenTarget().DeInit(); }
    OnEachInstructionSet(const OnEachInstructionSet&) = delete;
    OnEachInstructionSet& operator=(const OnEachInstructionSet&) = delete;
};

using RenderedRow = OnEachInstructionSet;
using RenderedFrame = OnEachInstructionSet;

// Of the targets that the compiler made; 0 is the one without vectors.
std::vector<std::int64_t> InstructionSets() {
    auto targets = hwy::SupportedAndGeneratedTargets();
    std::erase_if(targets, [](auto target) { return target == HWY_SCALAR || target == HWY_EMU128; });
    targets.push_back(0);
    return targets;
}

std::string NameOf(const testing::TestParamInfo<std::int64_t>& target) {
    return target.param == 0 ? "Plain" : hwy::TargetName(target.param);
}

INSTANTIATE_TEST_SUITE_P(Targets, RenderedRow, testing::ValuesIn(InstructionSets()), NameOf);
INSTANTIATE_TEST_SUITE_P(Targets, RenderedFrame, testing::ValuesIn(InstructionSets()), NameOf);

TEST_P(RenderedRow, HasTheCountsOfThePlainLoop) {
    PortableRandom random(5);
    for (const std::size_t count : {0U, 1U, 3U, 7U, 16U, 33U, 50'000U}) {
        std::vector<std::vector<float>> fields(4, std::vector<float>(count));
        for (std::size_t i = 0; i < count; ++i) {
            fields[0][i] = static_cast<float>(std::pow(10.0, random.Uniform(-3.0, 6.0)));  // some saturate
            fields[1][i] = i % 5 == 0 ? 0.0F : static_cast<float>(random.Uniform(0.5, 1.5));
            fields[2][i] = static_cast<float>(random.Uniform(-20.0, 1000.0));  // some fall below 0
            // So strong that the last bit of its rms decides some counts.
            const double noise = random.Uniform(-10'000.0, 60'000.0) / std::sqrt(9.0 + fields[0][i]);
            fields[3][i] = i % 2 == 0 ? static_cast<float>(noise) : 0.0F;
        }
        const RowLevels levels{4.0F, 0.5F, 1.7F, 9.0F};
        std::vector<std::uint16_t> counts(count + 1, 7);
        RenderRow({fields[0].data(), fields[1].data(), fields[2].data(), fields[3].data()}, levels, count,
                  counts.data());
        for (std::size_t i = 0; i < count; ++i) {
            const float mean = (fields[0][i] + levels.background) * fields[1][i];
            const float rms = std::sqrt(levels.read_variance + levels.gain * mean);
            const float value = ((fields[2][i] + levels.offset) + mean) + rms * fields[3][i];
            const float clipped = std::min(std::max(value, 0.0F), 65535.0F);
            ASSERT_EQ(counts[i], static_cast<std::uint16_t>(std::nearbyint(clipped))) << count << ", " << i;
        }
        EXPECT_EQ(counts[count], 7);
    }
}

// Calibration files and frames are made apart from each other, perhaps on different machines.
TEST_P(RenderedFrame, IsTheSameOnEveryMachine) {
    std::vector<std::uint16_t> raw(783360);
    FrameRenderer(Sensor(LisaModel()), 2).Render(3, std::vector<Spot>{{400.3, 300.7, 9000.0}}, raw);
    std::uint64_t sum = 0;
    for (const std::uint16_t count : raw) sum = Scatter(sum ^ count);
    EXPECT_EQ(sum, 7264140182961277553U);
}

TEST(FrameRenderer, ReadsAWindowAsAPartOfTheWhole) {
    const auto sensor = Sensor(AliceModel());
    FrameRenderer renderer(sensor, 2);
    const std::vector<Spot> spots{{60.0, 70.0, 20000.0}, {20.0, 20.0, 9000.0}};
    std::vector<std::uint16_t> whole(57600);
    std::vector<std::uint16_t> part(57600, 1);
    renderer.Render(1, spots, whole);
    renderer.Render(1, spots, {50, 60, 31, 17}, part);
    for (std::size_t i = 0; i < part.size(); ++i)
        EXPECT_EQ(part[i], i < std::size_t{31} * 17 ? whole[(60 + i / 31) * 240 + 50 + i % 31] : 1);
    // Nothing of the spot beside the window is left for the next frame.
    renderer.Render(2, {}, part);
    FrameRenderer(sensor, 2).Render(2, {}, whole);
    EXPECT_EQ(part, whole);
    EXPECT_THROW(renderer.Render(1, spots, {210, 0, 31, 1}, part), std::invalid_argument);
    EXPECT_THROW(renderer.Render(1, spots, std::span(part).first(57599)), std::invalid_argument);
    std::vector<std::uint16_t> raw(783360);
    EXPECT_THROW(FrameRenderer(Sensor(LisaModel()), 2).Render(1, spots, {0, 0, 1, 1}, raw),
                 std::invalid_argument);
}

}  // namespace
}  // namespace vosk::rig
