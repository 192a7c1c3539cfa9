// The fast forms against the plain ones, bit for bit, on every instruction set that this machine has.

#include <vosk/image_processing/centroiding.hpp>
#include <vosk/reference/centroids.hpp>
#include <vosk/test/onEachInstructionSet.hpp>
#include <vosk/test/support.hpp>

#include <bit>
#include <random>

namespace vosk::image_processing {
namespace {

constexpr std::uint16_t WIDTH = 37;
constexpr std::uint16_t HEIGHT = 31;
constexpr double SATURATION = 6.0;
constexpr float THRESHOLD = 1.5F;

using test::OnEachInstructionSet;
using Engine = std::mt19937;
using Frame = std::vector<float>;  // of exactly its size, so that a sanitizer sees a read behind it

using Pixel = std::function<float(Engine&)>;

float Noise(Engine& engine) {
    return std::normal_distribution<float>{0.0F, 100.0F}(engine);
}

// Once in `rarity` pixels `rare`, else noise or `other`.
Pixel Rarely(unsigned rarity, const Pixel& rare, const Pixel& other = Noise) {
    return [=](Engine& engine) { return engine() % rarity == 0 ? rare(engine) : other(engine); };
}

Pixel Always(float value) {
    return [=](Engine&) { return value; };
}

Pixel EitherSign(float value) {
    return [=](Engine& engine) { return std::copysign(value, Noise(engine)); };
}

std::vector<std::pair<std::string, Pixel>> Contents() {
    using Limits = std::numeric_limits<float>;
    return {
        {"noise", Noise},
        {"negative", [](Engine& engine) { return -1.0F - std::fabs(Noise(engine)); }},
        {"zero", Always(0.0F)},
        {"sums of zero", EitherSign(2.0F)},
        {"at the threshold", Rarely(2, Always(THRESHOLD), Always(std::nextafter(THRESHOLD, 0.0F)))},
        {"few values", [](Engine& engine) { return static_cast<float>(engine() % 4); }},
        {"subnormal", [](Engine& engine) { return Noise(engine) * 1e-43F; }},
        {"all magnitudes",
         [](Engine& engine) { return std::ldexp(Noise(engine), static_cast<int>(engine() % 200) - 100); }},
        {"largest", Rarely(3, Always(-Limits::max()), Always(Limits::max()))},
        {"a NaN", Rarely(400, Always(Limits::quiet_NaN()))},
        {"a negative infinity", Rarely(400, Always(-Limits::infinity()))},
        {"infinities of both signs", Rarely(40, EitherSign(Limits::infinity()))},
        {"zeroes of both signs", Rarely(16, Noise, EitherSign(0.0F))}};
}

// `count` ROIs of a size: in the four corners of the frame, then anywhere.
std::vector<Roi> Rois(std::size_t width, std::size_t height, std::size_t count, Engine& engine) {
    const std::size_t right = WIDTH - width;
    const std::size_t bottom = HEIGHT - height;
    const std::pair<std::size_t, std::size_t> corners[]{{right, bottom}, {0, 0}, {right, 0}, {0, bottom}};
    const auto cut = [](std::size_t value) { return static_cast<std::uint16_t>(value); };
    std::vector<Roi> rois;
    for (std::size_t i = 0; i < count; ++i) {
        const std::pair<std::size_t, std::size_t> anywhere{engine() % (right + 1), engine() % (bottom + 1)};
        const auto [left, top] = i < std::size(corners) ? corners[i] : anywhere;
        rois.emplace_back(cut(left), cut(left + width), cut(top), cut(top + height), WIDTH, HEIGHT,
                          static_cast<double>(3 * left + width) / 3.0,
                          static_cast<double>(2 * top + height) / 2.0);
    }
    return rois;
}

constexpr std::pair<std::size_t, std::size_t> SIZES[]{{1, 1},   {1, 9},  {9, 1},  {2, 3},         {3, 2},
                                                      {4, 4},   {5, 7},  {8, 8},  {0, 4},         {4, 0},
                                                      {24, 24}, {11, 6}, {13, 5}, {WIDTH, HEIGHT}};

// Every batch length up to one more than a full batch, each of them of one size; then a mixture.
std::vector<std::vector<Roi>> Batches(Engine& engine) {
    std::vector<std::vector<Roi>> batches;
    std::vector<Roi> mixed;
    for (std::size_t count = 0; count <= 17; ++count) {
        const auto [width, height] = SIZES[count % std::size(SIZES)];
        batches.push_back(Rois(8, 8, count, engine));
        batches.push_back(Rois(7, 5, count, engine));
        batches.push_back(Rois(width, height, 17 - count, engine));
        for (const Roi& roi : Rois(width, height, engine() % 6, engine)) mixed.push_back(roi);
    }
    batches.push_back(mixed);
    return batches;
}

struct Method {
    std::string name;
    std::unique_ptr<Centroiding<float>> fast;
    std::function<defs::Slope(const Frame&, const Roi&)> plain;
};

std::vector<Method> Methods() {
    std::vector<Method> methods;
    const auto add = [&](const std::string& name, std::unique_ptr<Centroiding<float>> fast, auto keep) {
        methods.push_back({name, std::move(fast), [keep](const Frame& frame, const Roi& roi) {
                               return reference::Gravity(frame, roi, SATURATION, keep);
                           }});
    };
    add("COG", std::make_unique<CentroidingCOG<float>>(WIDTH, HEIGHT, SATURATION),
        [](float) { return true; });
    for (const float threshold : {THRESHOLD, -50.0F}) {
        add("TSH", std::make_unique<CentroidingTSH<float>>(WIDTH, HEIGHT, SATURATION, threshold),
            [threshold](float value) { return value >= threshold; });
    }
    const std::pair<std::size_t, bool> brightest[]{{1, true},   {20, true},   {20, false},
                                                   {112, true}, {113, false}, {WIDTH * HEIGHT + 1, true}};
    for (const auto& [n, weight] : brightest) {
        auto fast = std::make_unique<CentroidingNBR<float>>(WIDTH, HEIGHT, SATURATION);
        fast->SetNBrightest(n, weight);
        methods.push_back({"NBR " + std::to_string(n), std::move(fast),
                           [n = n, weight = weight](const Frame& frame, const Roi& roi) {
                               return reference::Brightest(frame, roi, SATURATION, n, weight);
                           }});
    }
    return methods;
}

// The same bits, where one NaN is as good as another.
bool AreSame(const defs::Slope& fast, const defs::Slope& plain) {
    const auto bits = [](double value) {
        return std::bit_cast<std::uint64_t>(std::isnan(value) ? NAN : value);
    };
    return bits(fast.flux) == bits(plain.flux) && bits(fast.x) == bits(plain.x) &&
           bits(fast.y) == bits(plain.y);
}

using FastForms = OnEachInstructionSet;
INSTANTIATE_TEST_SUITE_P(Targets, FastForms, OnEachInstructionSet::All(), OnEachInstructionSet::Name);

TEST_P(FastForms, GiveTheBitsOfThePlainLoop) {
    Engine engine{7};
    auto methods = Methods();
    for (const auto& [content, pixel] : Contents()) {
        Frame frame(std::size_t{WIDTH} * HEIGHT);
        for (float& value : frame) value = pixel(engine);
        for (const auto& rois : Batches(engine)) {
            for (const Method& method : methods) {
                std::vector<defs::Slope> many(rois.size());
                method.fast->ComputeMany(frame, rois, many);
                for (std::size_t i = 0; i < rois.size(); ++i) {
                    const auto plain = method.plain(frame, rois[i]);
                    method.fast->Compute(frame, rois[i]);
                    const defs::Slope one{method.fast->flux, method.fast->x, method.fast->y};
                    ASSERT_TRUE(AreSame(one, plain) && AreSame(many[i], plain))
                        << method.name << " of " << content << ", ROI " << i << " of " << rois.size() << ", "
                        << rois[i].width << " x " << rois[i].height << ": " << one.flux << " alone, "
                        << many[i].flux << " in one call, " << plain.flux << " plain";
                }
            }
        }
    }
}

}  // namespace
}  // namespace vosk::image_processing
