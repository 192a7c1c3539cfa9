#include <vosk/reference/cleaning.hpp>

#include "cleaningBench.hpp"
#include "rowCleaning.hpp"

namespace vosk::image_processing {
namespace {

using CleanedStretch = OnEachInstructionSet;
INSTANTIATE_TEST_SUITE_P(Targets, CleanedStretch, OnEachInstructionSet::All(), OnEachInstructionSet::Name);

constexpr float UNTOUCHED = -12345.0F;

// Vectors of exactly their size, so that a sanitizer sees a read or a write beside them.
struct Pixels {
    explicit Pixels(std::size_t count, Values& values) {
        for (std::size_t i = 0; i < count; ++i) {
            raw.push_back(values.Raw());
            positions.push_back(static_cast<std::uint32_t>(values.Random()() % count));
            master_bias.push_back(values.Bias());
            flat.push_back(values.Flat());
        }
        cleaned.assign(count + 2, UNTOUCHED);
    }

    // All but the first and the last pixel of the frame.
    void Clean(const std::uint16_t* counts, const std::uint32_t* at, std::ptrdiff_t step, double dynamic_bias,
               std::vector<float>& frame) const {
        const Stretch stretch{counts, at, step, 0, raw.size(), dynamic_bias};
        const bool is_ordinary = std::abs(dynamic_bias) <= 0x1p101 && IsOrdinary(master_bias, flat);
        CleanStretches(&stretch, 1, {master_bias.data(), flat.data(), is_ordinary}, frame.data() + 1);
    }
    // The same pixels, as one of several taps delivers them.
    void CleanTap(std::ptrdiff_t step, double dynamic_bias, std::vector<float>& frame) const {
        std::vector<std::uint16_t> counts(raw.size() * TAP_STEP, 0xFFFF);
        std::uint16_t* const first = counts.data() + (step > 0 || raw.empty() ? 0 : counts.size() - TAP_STEP);
        for (std::size_t i = 0; i < raw.size(); ++i) first[static_cast<std::ptrdiff_t>(i) * step] = raw[i];
        Clean(first, nullptr, step, dynamic_bias, frame);
    }

    std::vector<std::uint16_t> raw;
    std::vector<std::uint32_t> positions;
    std::vector<float> master_bias;
    std::vector<float> flat;
    std::vector<float> cleaned;  // with a pixel on each side
};

TEST_P(CleanedStretch, GivesTheBitsOfThePlainLoopForEveryLength) {
    Values special{11};
    Values ordinary{11, 0};
    const double infinity = std::numeric_limits<double>::infinity();
    for (std::size_t count = 0; count < 70; ++count) {
        for (const double dynamic : {0.0, -3.25, 0x1p101, 1e300, infinity, std::nan("")}) {
            Pixels pixels{count, count % 2 == 0 ? special : ordinary};
            ASSERT_TRUE(count % 2 == 0 || IsOrdinary(pixels.master_bias, pixels.flat));
            auto expected = pixels.cleaned;
            auto expected_scattered = pixels.cleaned;
            for (std::size_t i = 0; i < count; ++i) {
                const auto cleaned = [&](std::uint16_t raw) {
                    return reference::CleanedPixel(raw, pixels.master_bias[i], dynamic, pixels.flat[i]);
                };
                expected[i + 1] = cleaned(pixels.raw[i]);
                expected_scattered[i + 1] = cleaned(pixels.raw[pixels.positions[i]]);
            }
            const auto is_cleaned = [&](const auto& clean, const std::vector<float>& wanted) {
                auto frame = pixels.cleaned;
                clean(frame);
                ASSERT_TRUE(SameBits(frame, wanted)) << count << ", " << dynamic;
            };
            const auto* const raw = pixels.raw.data();
            const auto* const positions = pixels.positions.data();
            is_cleaned([&](auto& frame) { pixels.Clean(raw, nullptr, 1, dynamic, frame); }, expected);
            is_cleaned([&](auto& frame) { pixels.Clean(raw, positions, 0, dynamic, frame); },
                       expected_scattered);
            is_cleaned([&](auto& frame) { pixels.CleanTap(TAP_STEP, dynamic, frame); }, expected);
            is_cleaned([&](auto& frame) { pixels.CleanTap(-TAP_STEP, dynamic, frame); }, expected);
        }
    }
}

// The ordinary case divides by way of a reciprocal. Quotients of signals just below 2 and flats close to a
// power of two lie as near as any to the points where rounding turns, in double and in float.
TEST_P(CleanedStretch, RoundsAnOrdinaryQuotientAsADivisionDoes) {
    constexpr std::size_t COUNT = 64;
    const std::vector<std::uint16_t> raw(COUNT);
    const std::vector<float> bias(COUNT);
    std::vector<float> flat;
    for (std::size_t i = 0; i < COUNT; ++i) flat.push_back(2.0F - static_cast<float>(i) * 0x1p-23F);
    flat[0] = std::ldexp(flat[1], -100);
    ASSERT_TRUE(IsOrdinary(bias, flat));
    std::vector<float> cleaned(COUNT);
    std::vector<float> expected(COUNT);
    for (int j = -2000; j < 2000; ++j) {
        for (const float gain : {flat[1], flat[5], flat[63]}) {
            const double turn = (1.0 + (2 * j + 1) * 0x1p-24) * gain;
            for (const double signal : {std::nextafter(turn, 0.0), turn, std::nextafter(turn, 4.0)}) {
                for (std::size_t i = 0; i < COUNT; ++i) {
                    expected[i] = reference::CleanedPixel(raw[i], bias[i], -signal, flat[i]);
                }
                const Stretch stretch{raw.data(), nullptr, 1, 0, COUNT, -signal};
                CleanStretches(&stretch, 1, {bias.data(), flat.data(), true}, cleaned.data());
                ASSERT_TRUE(SameBits(cleaned, expected)) << signal << " / " << gain;
            }
        }
    }
}

TEST(Cleaning, CleansEachStretchOnce) {
    constexpr std::size_t COUNT = 100;
    const std::vector<std::uint16_t> raw(COUNT, 8);
    const std::vector<float> bias(COUNT, 1.0F);
    const std::vector<float> flat(COUNT, 2.0F);
    std::vector<float> cleaned(COUNT, UNTOUCHED);
    RowCleaning cleaning{{bias.data(), flat.data(), false}, cleaned.data()};
    for (std::size_t i = 0; i < COUNT; ++i) {
        cleaning.Add({raw.data() + i, nullptr, 1, i, 1, static_cast<double>(i)});
    }
    cleaning.Finish();
    for (std::size_t i = 0; i < COUNT; ++i) {
        EXPECT_EQ(cleaned[i], (7.0F - static_cast<float>(i)) / 2.0F) << i;
    }
    std::fill(cleaned.begin(), cleaned.end(), UNTOUCHED);
    cleaning.Finish();
    EXPECT_EQ(cleaned, std::vector<float>(COUNT, UNTOUCHED));
}

}  // namespace
}  // namespace vosk::image_processing
