#include <vosk/image_processing/badPixelCorrection.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/node.hpp>
#include <vosk/test/support.hpp>

namespace vosk::image_processing {
namespace {

using Pixels = std::vector<std::pair<std::uint32_t, std::uint32_t>>;
using Weights = std::vector<float>;

constexpr std::uint16_t WIDTH = 6;
constexpr std::uint16_t HEIGHT = 5;
const Weights NEIGHBOURS{1, 1, 1, 1, 0, 1, 1, 1, 1};
const Roi WHOLE{0, WIDTH, 0, HEIGHT, WIDTH, HEIGHT, 0, 0};

// Pixel i holds i * i.
std::vector<float> Squares() {
    std::vector<float> frame(std::size_t{WIDTH} * HEIGHT);
    for (std::size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<float>(i * i);
    return frame;
}

std::vector<float> Repaired(const Pixels& bad_pixels, const Weights& weights, const Roi& roi) {
    std::vector<float> frame = Squares();
    bad_pixel_correction_block{WIDTH, HEIGHT, bad_pixels, weights}.work(frame, roi);
    return frame;
}

TEST(BadPixelCorrection, TakesTheKernelRowByRowAndPassesOverWhatHasNoWeight) {
    // Each weight in a kernel of its own, divided by its sum of 1: the neighbour itself.
    for (std::size_t i = 0; i < 9; ++i) {
        Weights weights(9);
        weights[i] = 1.0F;
        std::vector<float> frame(std::size_t{WIDTH} * HEIGHT, i % 2 == 0 ? NAN : INFINITY);
        frame[(1 + i / 3) * WIDTH + 1 + i % 3] = 5.0F;
        bad_pixel_correction_block{WIDTH, HEIGHT, {{2, 2}}, weights}.work(frame, WHOLE);
        EXPECT_EQ(frame[2 * WIDTH + 2], 5.0F) << i;
    }
}

TEST(BadPixelCorrection, UsesWhatItHasRepairedBeforeInTheRoiAlone) {
    // 1 + 4 + 9 + 49 + 81 + 169 + 196 + 225 around pixel 8.
    std::vector<float> expected = Squares();
    expected[8] = 734.0F / 8.0F;
    EXPECT_EQ(Repaired({{2, 1}}, NEIGHBOURS, WHOLE), expected);
    // 4 + 9 + 16 + (8) + 100 + 196 + 225 + 256 around pixel 9.
    expected[9] = (29.0F + 734.0F / 8.0F + 100.0F + 677.0F) / 8.0F;
    const Roi roi{2, 4, 1, 3, WIDTH, HEIGHT, 0, 0};
    EXPECT_EQ(Repaired({{1, 1}, {4, 1}, {2, 3}, {2, 1}, {3, 1}}, NEIGHBOURS, roi), expected);
    EXPECT_NE(Repaired({{3, 1}, {2, 1}}, NEIGHBOURS, roi), expected);
    EXPECT_NE(Repaired({{3, 2}}, NEIGHBOURS, roi), Squares());
}

// Values with which another order, a wider sum or a fused product would round differently.
TEST(BadPixelCorrection, RoundsEachProductAndSumInTurn) {
    const std::vector<float> ones(9, 1.0F);
    const std::vector<float> cancelling{1e8F, 1.0F, -1e8F, 1.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F};
    const float little = 0x1p-12F;
    const auto repaired = [](std::vector<float> pixels, const Weights& weights) {
        bad_pixel_correction_block{3, 3, {{1, 1}}, weights}.work(pixels, {0, 3, 0, 3, 3, 3, 0, 0});
        return pixels[4];
    };
    EXPECT_EQ(repaired(cancelling, ones), 1.0F / 9.0F);
    EXPECT_EQ(repaired(ones, cancelling), 1.0F);
    EXPECT_EQ(repaired({-1.0F - 2.0F * little, 1.0F + little, 0, 0, 0, 0, 0, 0, 0},
                       {1.0F, 1.0F + little, 0, 0, 0, 0, 0, 0, 0}),
              0.0F);
}

TEST(BadPixelCorrection, RefusesPixelsOnTheBorderAndOtherKernels) {
    const auto make = [](BadPixel bad_pixel, std::size_t weights) {
        bad_pixel_correction_block(WIDTH, HEIGHT, {bad_pixel}, Weights(weights, 1.0F));
    };
    for (const BadPixel& inside : {BadPixel{1, 1}, {WIDTH - 2, HEIGHT - 2}}) EXPECT_NO_THROW(make(inside, 9));
    for (const BadPixel& outside : {BadPixel{0, 1}, {1, 0}, {WIDTH - 1, 1}, {1, HEIGHT - 1}, {~0U, 1}})
        EXPECT_THROW(make(outside, 9), std::runtime_error) << outside.first;
    EXPECT_THROW(make({1, 1}, 10), std::runtime_error);
}

TEST(BadPixelCorrection, WarnsOfWeightsWithoutAUsableSum) {
    for (const float middle : {-8.0F, NAN}) {
        const test::LogCapture log;
        Repaired({{2, 1}}, {1, 1, 1, 1, middle, 1, 1, 1, 1}, WHOLE);
        EXPECT_EQ(log.Texts("Bad pixel weights sum up to ", log4cplus::WARN_LOG_LEVEL).size(), 1U);
    }
}

// What becomes of a section: "made", "null" or the error, whose place is that section.
std::string Made(const std::string& section) {
    const auto node = test::NodeOf("\na: {b: " + section + "}")["a"];
    try {
        return factory::CreateBadPixelCorrection(node, "b", WIDTH, HEIGHT) ? "made" : "null";
    } catch (const oru::configng::PliConfigError& error) {
        EXPECT_EQ(error.Where(), node["b"].GetWhere());
        return error.what();
    }
}

TEST(BadPixelCorrectionFactory, MakesOneSkipsItOrNamesTheOddValue) {
    const std::string weights = ", pixel_weights: [1, 1, 1, 1, 0, 1, 1, 1, 1]}";
    const std::string at = "CreateBadPixelCorrectionAlgorithm: a.b.bad_pixels";
    for (const auto& [section, made] : std::vector<std::pair<std::string, std::string>>{
             {"{bad_pixels: [[1, 1], [4, 3]]" + weights, "made"},
             {"[1]", "null"},
             {"{bad_pixels: []" + weights, "null"},
             {"{bad_pixels: [[1, 1]], pixel_weights: [1]}", "null"},
             {"{bad_pixels: {a: [1, 1]}" + weights, at + " must be a sequence"},
             {"{bad_pixels: [[1, 1], [2, 2, 2]]" + weights, at + "[1] has 3 values, not x and y"},
             {"{bad_pixels: [[1, 1]]}", "null"}}) {
        EXPECT_EQ(Made(section), made) << section;
    }
}

}  // namespace
}  // namespace vosk::image_processing
