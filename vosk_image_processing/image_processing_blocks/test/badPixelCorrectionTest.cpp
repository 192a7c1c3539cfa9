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

TEST(BadPixelCorrection, TakesTheKernelRowByRow) {
    // Each weight in a kernel of its own, divided by its sum of 1: the neighbour itself.
    for (std::size_t i = 0; i < 9; ++i) {
        Weights weights(9);
        weights[i] = 1.0F;
        const std::size_t neighbour = (1 + i / 3) * WIDTH + 1 + i % 3;
        EXPECT_EQ(Repaired({{2, 2}}, weights, WHOLE)[2 * WIDTH + 2], Squares()[neighbour]) << i;
    }
    // 1 + 4 + 9 + 49 + 81 + 169 + 196 + 225 around pixel 8.
    std::vector<float> expected = Squares();
    expected[8] = 734.0F / 8.0F;
    EXPECT_EQ(Repaired({{2, 1}}, NEIGHBOURS, WHOLE), expected);
}

TEST(BadPixelCorrection, UsesWhatItHasRepairedBefore) {
    const auto left_first = Repaired({{2, 1}, {3, 1}}, NEIGHBOURS, WHOLE);
    EXPECT_EQ(left_first[8], 734.0F / 8.0F);
    // 4 + 9 + 16 + (8) + 100 + 196 + 225 + 256 around pixel 9.
    EXPECT_EQ(left_first[9], (29.0F + 734.0F / 8.0F + 100.0F + 677.0F) / 8.0F);
    EXPECT_NE(Repaired({{3, 1}, {2, 1}}, NEIGHBOURS, WHOLE), left_first);
}

// Values with which another order, a wider sum or a fused product would round differently.
TEST(BadPixelCorrection, RoundsEachProductAndSumInTurn) {
    const std::vector<float> ones(9, 1.0F);
    const std::vector<float> cancelling{1e8F, 1.0F, -1e8F, 1.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F};
    const float little = 0x1p-12F;
    struct Case {
        std::vector<float> pixels;
        Weights weights;
        float repaired;
    };
    for (const Case& at : std::vector<Case>{{cancelling, ones, 1.0F / 9.0F},
                                            {ones, cancelling, 1.0F},
                                            {{-1.0F - 2.0F * little, 1.0F + little, 0, 0, 0, 0, 0, 0, 0},
                                             {1.0F, 1.0F + little, 0, 0, 0, 0, 0, 0, 0},
                                             0.0F}}) {
        std::vector<float> frame = at.pixels;
        bad_pixel_correction_block{3, 3, {{1, 1}}, at.weights}.work(frame, {0, 3, 0, 3, 3, 3, 0, 0});
        EXPECT_EQ(frame[4], at.repaired);
    }
}

TEST(BadPixelCorrection, RepairsOnlyInTheRegion) {
    const Roi roi{2, 4, 1, 3, WIDTH, HEIGHT, 0, 0};
    EXPECT_EQ(Repaired({{1, 1}, {4, 1}, {2, 3}}, NEIGHBOURS, roi), Squares());
    const auto frame = Repaired({{2, 1}, {3, 2}}, NEIGHBOURS, roi);
    EXPECT_NE(frame[8], Squares()[8]);
    EXPECT_NE(frame[15], Squares()[15]);
    EXPECT_EQ(Repaired({}, NEIGHBOURS, WHOLE), Squares());
}

TEST(BadPixelCorrection, RefusesPixelsOnTheBorderAndOtherKernelsAndLeavesTheLogToItsMaker) {
    const test::LogCapture log;
    const auto outcome = [](std::uint32_t x, std::uint32_t y, std::size_t weights = 9) {
        return test::TextOf<std::runtime_error>([&] {
            return bad_pixel_correction_block{WIDTH, HEIGHT, {{x, y}}, Weights(weights, 1.0F)};
        });
    };
    const auto error = [](const std::string& text) { return "ERR: Bad pixel " + text + " out of range"; };
    EXPECT_EQ(outcome(1, 1), "no exception");
    EXPECT_EQ(outcome(WIDTH - 2, HEIGHT - 2), "no exception");
    EXPECT_EQ(outcome(0, 1), error("X-value 0"));
    EXPECT_EQ(outcome(1, 0), error("Y-value 0"));
    EXPECT_EQ(outcome(WIDTH - 1, 0), error("X-value 5"));
    EXPECT_EQ(outcome(1, HEIGHT - 1), error("Y-value 4"));
    EXPECT_EQ(outcome(~0U, 1), error("X-value 4294967295"));
    EXPECT_EQ(outcome(0, 0, 8), "ERR: Only supplied 8 pixel weights");
    EXPECT_EQ(outcome(0, 0, 10), "ERR: Only supplied 10 pixel weights");
    EXPECT_TRUE(log.Lines().empty());
}

TEST(BadPixelCorrection, WarnsOfWeightsWithoutAUsableSum) {
    for (const auto& [weights, sum] : std::vector<std::pair<Weights, std::string>>{
             {{1, 1, 1, 1, -8, 1, 1, 1, 1}, "0"},
             {{1, 1, 1, 1, NAN, 1, 1, 1, 1}, "nan"},
             {{3e38F, 3e38F, -3e38F, -3e38F, 1, 1, 1, 1, 1}, "inf"}}) {  // the first two overflow
        const test::LogCapture log;
        Repaired({{2, 1}}, weights, WHOLE);
        EXPECT_EQ(log.Texts("Bad pixel weights sum up to " + sum + ": ", log4cplus::WARN_LOG_LEVEL).size(),
                  1U);
    }
}

// What becomes of the section `b` of an instance: "made", "null" or the error, whose place is that section.
std::string Made(const std::string& section) {
    const auto node = test::NodeOf("\na: {" + section + "}")["a"];
    try {
        return factory::CreateBadPixelCorrection(node, "b", WIDTH, HEIGHT) ? "made" : "null";
    } catch (const oru::configng::PliConfigError& error) {
        EXPECT_EQ(error.Where(), node["b"].GetWhere());
        return error.what();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

TEST(BadPixelCorrectionFactory, MakesOneSkipsItOrNamesTheOddValue) {
    const std::string weights = ", pixel_weights: [1, 1, 1, 1, 0, 1, 1, 1, 1]}";
    const std::string at = "CreateBadPixelCorrectionAlgorithm: a.b.";
    EXPECT_EQ(Made("b: {bad_pixels: [[1, 1], [4, 3]]" + weights), "made");
    EXPECT_EQ(Made("c: 1"), "null");
    EXPECT_EQ(Made("b: [1]"), "null");
    EXPECT_EQ(Made("b: {bad_pixels: []" + weights), "null");
    EXPECT_EQ(Made("b: {bad_pixels: [[1, 1]], pixel_weights: [1]}"), "null");
    EXPECT_EQ(Made("b: {bad_pixels: [[1, 4]]" + weights), "ERR: Bad pixel Y-value 4 out of range");
    for (const char* odd : {"{a: [1, 1]}", "3"})
        EXPECT_EQ(Made("b: {bad_pixels: " + (odd + weights)), at + "bad_pixels must be a sequence");
    for (const char* odd : {"{x: 2, y: 2}", "2"})
        EXPECT_EQ(Made("b: {bad_pixels: [[1, 1], " + (odd + ("]" + weights))),
                  at + "bad_pixels[1] must be a sequence");
    EXPECT_EQ(Made("b: {bad_pixels: [[1, 1], [2, 2, 2]]" + weights),
              at + "bad_pixels[1] has 3 values, not x and y");
    EXPECT_EQ(Made("b: {bad_pixels: [[1, 1]], pixel_weights: {a: 1}}"),
              at + "pixel_weights must be a sequence");
    EXPECT_EQ(test::TextOf<std::runtime_error>([] {
                  return factory::CreateBadPixelCorrectionAlgorithm(test::NodeOf("a: 3")["a"], WIDTH, HEIGHT);
              }),
              "CreateBadPixelCorrectionAlgorithm node not a map");
    const test::LogCapture log;
    for (const std::string& half :
         std::vector<std::string>{"b: {bad_pixels: [[1, 1]]}", "b: {c: 1" + weights}) {
        EXPECT_EQ(Made(half), "null");
    }
    EXPECT_EQ(log.Texts("misconfigured, skipping", log4cplus::WARN_LOG_LEVEL).size(), 2U);
}

}  // namespace
}  // namespace vosk::image_processing
