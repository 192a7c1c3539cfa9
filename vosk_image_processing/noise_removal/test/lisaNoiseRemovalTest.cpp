#include <vosk/reference/cleaning.hpp>

#include "cleaningBench.hpp"

namespace vosk::image_processing {
namespace {

using defs::AlignedFrame;

constexpr std::uint16_t WIDTH = LisaGeometry::WIDTH;
constexpr std::uint16_t HEIGHT = LisaGeometry::HEIGHT;
constexpr std::size_t SIZE = std::size_t{WIDTH} * HEIGHT;
constexpr std::size_t RAW_SIZE = LisaGeometry::SCRAMBLED_WIDTH * LisaGeometry::SCRAMBLED_HEIGHT;

LisaTable TableOf(const std::function<std::size_t(std::size_t)>& entry) {
    LisaTable table(SIZE);
    for (std::size_t i = 0; i < SIZE; ++i) table[i] = static_cast<std::uint32_t>(entry(i));
    return table;
}

std::size_t InRows(std::size_t i) {
    return i / WIDTH * LisaGeometry::SCRAMBLED_WIDTH + i % WIDTH + 60;
}

bool IsDark(std::size_t i) {
    return i % WIDTH < 20 || i % WIDTH >= 820;
}

using LisaCleaning = OnEachInstructionSet;
INSTANTIATE_TEST_SUITE_P(Targets, LisaCleaning, OnEachInstructionSet::All(), OnEachInstructionSet::Name);

TEST_P(LisaCleaning, GivesTheBitsOfThePlainLoopForEveryTableAndRoi) {
    Values values{21};
    auto& random = values.Random();
    std::vector<std::uint32_t> positions(RAW_SIZE);
    std::iota(positions.begin(), positions.end(), 0U);
    std::shuffle(positions.begin(), positions.end(), random);
    const std::vector<std::pair<std::string, LisaTable>> tables{
        {"neighbours", TableOf(InRows)},
        {"8 taps side by side", TableOf([](std::size_t i) { return InRows(i - i % 105) + i % 105; })},
        // Up to the very end of the raw frame, every second one from the right.
        {"8 taps by turns", TableOf([](std::size_t i) {
             const std::size_t tap = i % WIDTH / 105;
             const std::size_t step = tap % 2 == 0 ? i % 105 : 104 - i % 105;
             return i / WIDTH * 960 + 120 + step * 8 + tap;
         })},
        // Rows are alike up to one in the middle of a group, and from there on; in the last quarter, where
        // one half of a row goes up and the other one down, none is.
        {"halves towards each other", TableOf([](std::size_t i) {
             const std::size_t row = i / WIDTH;
             const bool goes_up = row >= 410 && (row < 610 || i % WIDTH < WIDTH / 2);
             return InRows((goes_up ? 410 + HEIGHT - 1 - row : row) * WIDTH + i % WIDTH);
         })},
        {"short and long runs",
         TableOf([](std::size_t i) { return i + (i / 23 % 2 == 0 ? i % 23 / 9 * 50 : 7); })},
        {"random", TableOf([&](std::size_t i) { return positions[i]; })}};
    const std::array rois{At(0, WIDTH, 0, HEIGHT), At(816, 840, 792, 816), At(0, 1, 5, 30),
                          At(839, 840, 0, 816),    At(99, 122, 813, 816),  At(15, 22, 3, 9),
                          At(400, 408, 7, 400),    At(50, 50, 10, 30),     At(3, 700, 20, 20),
                          At(300, 331, 100, 131)};
    AlignedFrame<float> bias(SIZE);
    AlignedFrame<float> flat(SIZE);
    AlignedFrame<std::uint16_t> raw(RAW_SIZE);
    std::generate(raw.begin(), raw.end(), [&] { return values.Raw(); });
    for (const std::uint32_t rarity : {16U, 0U}) {
        Values calibration{22, rarity};
        std::generate(flat.begin(), flat.end(), [&] { return calibration.Flat(); });
        // Special values in the columns without light would spoil all pixels: in some groups only.
        for (std::size_t i = 0; i < SIZE; ++i) {
            const bool is_odd = i / WIDTH / 4 % 8 == 3;
            bias[i] = IsDark(i) && !is_odd ? calibration.Real(-200.0F, 200.0F) : calibration.Bias();
        }
        for (const auto& [name, table] : tables) {
            const auto removal = MakeLisa(bias, flat, table);
            reference::LisaCleaning plain{bias, flat, table};
            for (const Roi& roi : rois) {
                for (std::uint16_t& count : raw) count = static_cast<std::uint16_t>(count * 3 + 1);
                removal->InvalidateCache();
                removal->RemoveNoise(raw, Window{0, 0, 1, 1}, roi);  // the window counts for MARANA
                plain.NewFrame(raw);
                plain.Clean(roi);
                ASSERT_TRUE(SameBits(removal->GetFrame(), plain.Frame()))
                    << name << ", x " << roi.x_start << ".." << roi.x_stop << ", y " << roi.y_start;
            }
            for (std::uint16_t& count : raw) ++count;
            removal->InvalidateCache();
            removal->RemoveNoiseOfMany(raw, {}, std::span{rois}.subspan(1));
            plain.NewFrame(raw);
            for (const Roi& roi : std::span{rois}.subspan(1)) plain.Clean(roi);
            ASSERT_TRUE(SameBits(removal->GetFrame(), plain.Frame())) << name << ", many";
        }
    }
}

// The dynamic bias, seen in a pixel of no count and no bias, where the sum of counts and biases depends on
// the order of its terms.
TEST(LisaBias, TakesEachCountAndThenItsBias) {
    struct Case {
        float first;   // bias of the group's first dark pixel, whose count is 0
        float second;  // and of the next; all other dark counts are 1000
        float others;
        double sum;
    };
    const Case cases[]{{0x1p-40F, 1000.0F, 1000.0F, -0x1p-40},  // lost in a sum of the biases alone
                       {0x1p-60F, 1000.0F, 1000.0F, 0.0},       // stays if differences are summed
                       {1e20F, -1e20F, 0.0F, 158'000.0}};       // swallows the count in between
    AlignedFrame<float> bias(SIZE);
    AlignedFrame<std::uint16_t> raw(RAW_SIZE, 1000);
    for (std::size_t group = 0; group < std::size(cases); ++group) {
        const std::size_t first = group * 4 * WIDTH;
        std::fill_n(bias.begin() + static_cast<std::ptrdiff_t>(first), 4 * WIDTH, cases[group].others);
        bias[first] = cases[group].first;
        bias[first + 1] = cases[group].second;
        bias[first + 100] = 0.0F;
        raw[InRows(first)] = raw[InRows(first + 100)] = 0;
    }
    const auto removal = MakeLisa(bias, AlignedFrame<float>(SIZE, 1.0F), TableOf(InRows));
    removal->RemoveNoise(raw, {}, {});
    for (std::size_t group = 0; group < std::size(cases); ++group) {
        EXPECT_EQ(removal->GetFrame()[group * 4 * WIDTH + 100], static_cast<float>(-cases[group].sum / 160.0))
            << group;
    }
}

}  // namespace
}  // namespace vosk::image_processing
