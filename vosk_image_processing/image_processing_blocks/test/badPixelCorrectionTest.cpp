#include <fmt/format.h>
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

std::string ErrorOf(std::uint32_t x, std::uint32_t y, const Weights& weights) {
    return test::TextOf<std::runtime_error>([&] {
        return bad_pixel_correction_block{WIDTH, HEIGHT, {{x, y}}, weights};
    });
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
    EXPECT_EQ(ErrorOf(1, 1, NEIGHBOURS), "no exception");
    EXPECT_EQ(ErrorOf(WIDTH - 2, HEIGHT - 2, NEIGHBOURS), "no exception");
    EXPECT_EQ(ErrorOf(0, 1, NEIGHBOURS), "ERR: Bad pixel X-value 0 out of range");
    EXPECT_EQ(ErrorOf(1, 0, NEIGHBOURS), "ERR: Bad pixel Y-value 0 out of range");
    EXPECT_EQ(ErrorOf(WIDTH - 1, 0, NEIGHBOURS), "ERR: Bad pixel X-value 5 out of range");
    EXPECT_EQ(ErrorOf(1, HEIGHT - 1, NEIGHBOURS), "ERR: Bad pixel Y-value 4 out of range");
    EXPECT_EQ(ErrorOf(0xFFFFFFFF, 1, NEIGHBOURS), "ERR: Bad pixel X-value 4294967295 out of range");
    EXPECT_EQ(ErrorOf(0, 0, Weights(8)), "ERR: Only supplied 8 pixel weights");
    EXPECT_EQ(ErrorOf(0, 0, Weights(10)), "ERR: Only supplied 10 pixel weights");
    EXPECT_TRUE(log.Lines().empty());
}

TEST(BadPixelCorrection, WarnsOfWeightsWithoutAUsableSum) {
    const std::string text = "Bad pixel weights sum up to {}: repaired pixels will be infinite or no numbers";
    for (const auto& [middle, sum] : {std::pair{-8.0F, "0"}, {NAN, "nan"}, {-INFINITY, "-inf"}}) {
        test::LogCapture log;
        const auto frame = Repaired({{2, 1}}, {1, 1, 1, 1, middle, 1, 1, 1, 1}, WHOLE);
        EXPECT_FALSE(std::isfinite(frame[8]));
        EXPECT_EQ(log.Count(log4cplus::WARN_LOG_LEVEL, fmt::format(fmt::runtime(text), sum)), 1);
    }
    test::LogCapture log;
    Repaired({{2, 1}}, {3e38F, 3e38F, -3e38F, -3e38F, 1, 1, 1, 1, 1}, WHOLE);  // the first two overflow
    EXPECT_EQ(log.Count(log4cplus::WARN_LOG_LEVEL, fmt::format(fmt::runtime(text), "inf")), 1);
}

using Outcome = std::pair<std::string, std::vector<test::LogCapture::Line>>;

// What is made of the section `b` of the instance `a`, told as "made", "null" or the error, and the log.
Outcome Made(const std::string& section) {
    test::LogCapture log;
    std::unique_ptr<bad_pixel_correction_block> block;
    std::string outcome = test::TextOf<std::runtime_error>([&] {
        block =
            factory::CreateBadPixelCorrection(test::NodeOf("a: {" + section + "}")["a"], "b", WIDTH, HEIGHT);
    });
    if (outcome == "no exception") outcome = block ? "made" : "null";
    return {outcome, log.Lines()};
}

TEST(BadPixelCorrectionFactory, TellsWhyThereIsNone) {
    const std::string prefix = "CreateBadPixelCorrectionAlgorithm: ";
    const std::string weights = "pixel_weights: [1, 1, 1, 1, 0, 1, 1, 1, 1]";
    using Line = test::LogCapture::Line;
    const Line setting_up{log4cplus::DEBUG_LOG_LEVEL, prefix + "setting up bad pixel correction"};
    const Line none{log4cplus::DEBUG_LOG_LEVEL, prefix + "no bad pixels, skipping"};
    const Line no_section{log4cplus::DEBUG_LOG_LEVEL,
                          prefix + "bad_pixel_correction not configured, skipping"};
    const Line no_list{log4cplus::WARN_LOG_LEVEL, prefix + "bad_pixel_correction misconfigured, skipping"};
    EXPECT_EQ(Made("b: {bad_pixels: [[1, 1], [4, 3]], " + weights + "}"), (Outcome{"made", {setting_up}}));
    EXPECT_EQ(Made("c: 1"), (Outcome{"null", {no_section}}));
    EXPECT_EQ(Made("b: [1]"), (Outcome{"null", {no_section}}));
    EXPECT_EQ(Made("b: {bad_pixels: [[1, 1]]}"), (Outcome{"null", {no_list}}));
    EXPECT_EQ(Made("b: {" + weights + "}"), (Outcome{"null", {no_list}}));
    EXPECT_EQ(Made("b: {bad_pixels: [], " + weights + "}"), (Outcome{"null", {setting_up, none}}));
    EXPECT_EQ(Made("b: {bad_pixels: [[1, 1]], pixel_weights: [1]}"), (Outcome{"null", {setting_up, none}}));
    EXPECT_EQ(Made("b: {bad_pixels: [[1, 4]], " + weights + "}"),
              (Outcome{"ERR: Bad pixel Y-value 4 out of range", {setting_up}}));
    const std::vector<std::pair<std::string, std::string>> odd_lists{
        {"bad_pixels: {a: [1, 1]}, " + weights, "a.b.bad_pixels must be a sequence"},
        {"bad_pixels: 3, " + weights, "a.b.bad_pixels must be a sequence"},
        {"bad_pixels: [[1, 1], {x: 2, y: 2}], " + weights, "a.b.bad_pixels[1] must be a sequence"},
        {"bad_pixels: [[1, 1], 2], " + weights, "a.b.bad_pixels[1] must be a sequence"},
        {"bad_pixels: [[1, 1], [2, 2, 2]], " + weights, "a.b.bad_pixels[1] has 3 values, not x and y"},
        {"bad_pixels: [[1, 1]], pixel_weights: {a: 1}", "a.b.pixel_weights must be a sequence"}};
    for (const auto& [section, text] : odd_lists) {
        const auto node = test::NodeOf("\na: {b: {" + section + "}}")["a"];
        try {
            factory::CreateBadPixelCorrection(node, "b", WIDTH, HEIGHT);
            ADD_FAILURE() << section;
        } catch (const oru::configng::PliConfigError& error) {
            EXPECT_EQ(error.what(), prefix + text);
            EXPECT_EQ(error.Where(), node["b"].GetWhere());
        }
    }
}

TEST(BadPixelCorrectionFactory, RefusesANodeThatIsNoMap) {
    test::LogCapture log;
    const std::string text = "CreateBadPixelCorrectionAlgorithm node not a map";
    EXPECT_EQ(test::TextOf<std::runtime_error>([] {
                  return factory::CreateBadPixelCorrectionAlgorithm(test::NodeOf("a: 3")["a"], WIDTH, HEIGHT);
              }),
              text);
    EXPECT_EQ(log.Count(log4cplus::ERROR_LOG_LEVEL, text), 1);
}

}  // namespace
}  // namespace vosk::image_processing
