// The fast forms against the plain ones, bit for bit, on every instruction set that this machine has.

#include <vosk/image_processing/centroiding.hpp>

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <vosk/test/onEachInstructionSet.hpp>
#include "plainCentroid.hpp"

namespace vosk::image_processing {
namespace {

constexpr std::uint16_t WIDTH = 37;
constexpr std::uint16_t HEIGHT = 31;
constexpr double SATURATION = 6.0;
constexpr float THRESHOLD = 1.5F;

using Engine = std::mt19937;
using Frame = std::vector<float>;  // of exactly its size, so that a sanitizer sees a read behind it

struct Content {
    std::string name;
    std::function<float(Engine&)> pixel;
};

float Noise(Engine& engine) {
    return std::normal_distribution<float>{0.0F, 100.0F}(engine);
}

// Rarely `value`, else noise.
std::function<float(Engine&)> With(float value) {
    return [value](Engine& engine) { return engine() % 400 == 0 ? value : Noise(engine); };
}

std::vector<Content> Contents() {
    using Limits = std::numeric_limits<float>;
    return {
        {"noise", Noise},
        {"negative", [](Engine& engine) { return -1.0F - std::fabs(Noise(engine)); }},
        {"zero", [](Engine&) { return 0.0F; }},
        {"negative zero", [](Engine&) { return -0.0F; }},
        {"sums of zero", [](Engine& engine) { return engine() % 2 == 0 ? 2.0F : -2.0F; }},
        {"at the threshold",
         [](Engine& engine) { return engine() % 2 == 0 ? THRESHOLD : std::nextafter(THRESHOLD, 0.0F); }},
        {"few values", [](Engine& engine) { return static_cast<float>(engine() % 4); }},
        {"subnormal", [](Engine& engine) { return Noise(engine) * 1e-43F; }},
        {"all magnitudes",
         [](Engine& engine) { return std::ldexp(Noise(engine), static_cast<int>(engine() % 200) - 100); }},
        {"largest", [](Engine& engine) { return engine() % 3 == 0 ? -Limits::max() : Limits::max(); }},
        {"a NaN", With(Limits::quiet_NaN())},
        {"a negative NaN", With(-Limits::quiet_NaN())},
        {"an infinity", With(Limits::infinity())},
        {"a negative infinity", With(-Limits::infinity())},
        {"infinities of both signs",
         [](Engine& engine) {
             return engine() % 40 == 0 ? std::copysign(Limits::infinity(), Noise(engine)) : Noise(engine);
         }},
        {"zeroes of both signs", [](Engine& engine) {
             return engine() % 16 == 0 ? Noise(engine) : std::copysign(0.0F, Noise(engine));
         }}};
}

Roi At(unsigned left, unsigned top, unsigned width, unsigned height) {
    const auto cut = [](unsigned value) { return static_cast<std::uint16_t>(value); };
    return {cut(left), cut(left + width),  cut(top),          cut(top + height), WIDTH,
            HEIGHT,    left + width / 3.0, top + height / 1.7};
}

// `count` regions of a size: in the four corners of the frame, then anywhere.
std::vector<Roi> Regions(unsigned width, unsigned height, std::size_t count, Engine& engine) {
    const unsigned right = WIDTH - width;
    const unsigned bottom = HEIGHT - height;
    std::vector<Roi> rois{At(right, bottom, width, height), At(0, 0, width, height),
                          At(right, 0, width, height), At(0, bottom, width, height)};
    std::uniform_int_distribution<unsigned> left{0, right};
    std::uniform_int_distribution<unsigned> top{0, bottom};
    while (rois.size() < count) rois.push_back(At(left(engine), top(engine), width, height));
    rois.erase(rois.begin() + static_cast<std::ptrdiff_t>(count), rois.end());
    return rois;
}

constexpr std::pair<unsigned, unsigned> SIZES[]{{1, 1},   {1, 9},  {9, 1},  {2, 3},         {3, 2},
                                                {4, 4},   {5, 7},  {8, 8},  {0, 4},         {4, 0},
                                                {24, 24}, {11, 6}, {13, 5}, {WIDTH, HEIGHT}};

// Every batch length up to one more than a full batch, each of them of one size; then a mixture.
std::vector<std::vector<Roi>> Batches(Engine& engine) {
    std::vector<std::vector<Roi>> batches;
    std::vector<Roi> mixed;
    for (std::size_t count = 0; count <= 17; ++count) {
        const auto [width, height] = SIZES[count % std::size(SIZES)];
        batches.push_back(Regions(8, 8, count, engine));
        batches.push_back(Regions(7, 5, count, engine));
        batches.push_back(Regions(width, height, 17 - count, engine));
        for (const Roi& roi : Regions(width, height, engine() % 6, engine)) mixed.push_back(roi);
    }
    batches.push_back(mixed);
    return batches;
}

struct Method {
    std::string name;
    std::unique_ptr<Centroiding<float>> fast;
    std::function<defs::Slope(const Frame&, const Roi&)> plain;
};

Method MakeTsh(float threshold) {
    return {"TSH", std::make_unique<CentroidingTSH<float>>(WIDTH, HEIGHT, SATURATION, threshold),
            [=](const Frame& frame, const Roi& roi) {
                return plain::Gravity(frame, roi, SATURATION,
                                      [&](float value) { return value >= threshold; });
            }};
}

Method MakeNbr(std::size_t nbrightest, bool weight_pixels) {
    auto fast = std::make_unique<CentroidingNBR<float>>(WIDTH, HEIGHT, SATURATION);
    fast->SetNBrightest(nbrightest, weight_pixels);
    return {"NBR " + std::to_string(nbrightest), std::move(fast), [=](const Frame& frame, const Roi& roi) {
                return plain::Brightest(frame, roi, SATURATION, nbrightest, weight_pixels);
            }};
}

std::vector<Method> Methods() {
    std::vector<Method> methods;
    methods.push_back({"COG", std::make_unique<CentroidingCOG<float>>(WIDTH, HEIGHT, SATURATION),
                       [](const Frame& frame, const Roi& roi) {
                           return plain::Gravity(frame, roi, SATURATION, [](float) { return true; });
                       }});
    methods.push_back(MakeTsh(THRESHOLD));
    methods.push_back(MakeTsh(-50.0F));
    methods.push_back(MakeNbr(1, true));
    methods.push_back(MakeNbr(20, true));
    methods.push_back(MakeNbr(20, false));
    methods.push_back(MakeNbr(112, true));
    methods.push_back(MakeNbr(113, false));
    methods.push_back(MakeNbr(WIDTH * HEIGHT + 1, true));
    return methods;
}

// The same bits, where one NaN is as good as another.
bool AreSame(double left, double right) {
    if (std::isnan(left) || std::isnan(right)) return std::isnan(left) && std::isnan(right);
    return std::bit_cast<std::uint64_t>(left) == std::bit_cast<std::uint64_t>(right);
}

testing::AssertionResult AreSame(const defs::Slope& fast, const defs::Slope& plain) {
    if (AreSame(fast.flux, plain.flux) && AreSame(fast.x, plain.x) && AreSame(fast.y, plain.y)) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << fast.flux << " at " << fast.x << ", " << fast.y << " and not "
                                       << plain.flux << " at " << plain.x << ", " << plain.y;
}

using test::OnEachInstructionSet;
using FastForms = OnEachInstructionSet;
INSTANTIATE_TEST_SUITE_P(Targets, FastForms, OnEachInstructionSet::All(), OnEachInstructionSet::Name);

TEST_P(FastForms, GiveTheBitsOfThePlainLoop) {
    Engine engine{7};
    auto methods = Methods();
    for (const Content& content : Contents()) {
        Frame frame(std::size_t{WIDTH} * HEIGHT);
        for (float& pixel : frame) pixel = content.pixel(engine);
        for (const auto& rois : Batches(engine)) {
            for (const Method& method : methods) {
                std::vector<defs::Slope> many(rois.size());
                method.fast->ComputeMany(frame, rois, many);
                for (std::size_t i = 0; i < rois.size(); ++i) {
                    const auto plain = method.plain(frame, rois[i]);
                    method.fast->Compute(frame, rois[i]);
                    const auto what = [&] {
                        return method.name + " of " + content.name + ", region " + std::to_string(i) +
                               " of " + std::to_string(rois.size()) + ", " + std::to_string(rois[i].width) +
                               " x " + std::to_string(rois[i].height);
                    };
                    ASSERT_TRUE(AreSame({method.fast->flux, method.fast->x, method.fast->y}, plain))
                        << what();
                    ASSERT_TRUE(AreSame(many[i], plain)) << what() << ", in one call";
                }
            }
        }
    }
}

TEST(Centroiding, KnowsTheInstructionSetBeforeItsFirstFrame) {
    hwy::GetChosenTarget().DeInit();
    const CentroidingCOG<float> cog{WIDTH, HEIGHT, SATURATION};
    EXPECT_TRUE(hwy::GetChosenTarget().IsInitialized());
}

}  // namespace
}  // namespace vosk::image_processing
