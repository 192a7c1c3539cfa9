#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "plainCleaning.hpp"
#include "rowCleaning.hpp"

namespace vosk::image_processing {
namespace {

using RowCleaning = OnEachInstructionSet;
INSTANTIATE_TEST_SUITE_P(Targets, RowCleaning, OnEachInstructionSet::All(), OnEachInstructionSet::Name);

constexpr float UNTOUCHED = -12345.0F;

// Vectors of exactly their size, so that a sanitizer sees a read or a write beside them.
struct Stretch {
    explicit Stretch(std::size_t count, Values& values) {
        for (std::size_t i = 0; i < count; ++i) {
            raw.push_back(values.Raw());
            positions.push_back(static_cast<std::uint32_t>(values.Random()() % count));
            master_bias.push_back(values.Bias());
            flat.push_back(values.Flat());
        }
        cleaned.assign(count + 2, UNTOUCHED);
    }

    std::vector<std::uint16_t> raw;
    std::vector<std::uint32_t> positions;
    std::vector<float> master_bias;
    std::vector<float> flat;
    defs::AlignedFrame<float> cleaned;  // with a pixel on each side
};

TEST_P(RowCleaning, GivesTheBitsOfThePlainLoopForEveryLength) {
    Values values{11};
    const double infinity = std::numeric_limits<double>::infinity();
    for (std::size_t count = 0; count < 70; ++count) {
        for (const double dynamic : {0.0, -3.25, 1e300, infinity, std::nan("")}) {
            Stretch stretch{count, values};
            auto expected = stretch.cleaned;
            auto expected_scattered = stretch.cleaned;
            for (std::size_t i = 0; i < count; ++i) {
                expected[i + 1] =
                    PlainPixel(stretch.raw[i], stretch.master_bias[i], dynamic, stretch.flat[i]);
                expected_scattered[i + 1] = PlainPixel(stretch.raw[stretch.positions[i]],
                                                       stretch.master_bias[i], dynamic, stretch.flat[i]);
            }
            auto scattered = stretch.cleaned;
            CleanPixels(stretch.raw.data(), stretch.master_bias.data(), stretch.flat.data(), dynamic,
                        stretch.cleaned.data() + 1, count);
            CleanScatteredPixels(stretch.raw.data(), stretch.positions.data(), stretch.master_bias.data(),
                                 stretch.flat.data(), dynamic, scattered.data() + 1, count);
            ASSERT_EQ(Bits(stretch.cleaned), Bits(expected)) << count << ", " << dynamic;
            ASSERT_EQ(Bits(scattered), Bits(expected_scattered)) << count << ", " << dynamic;
        }
    }
}

// Without a dynamic bias nothing is subtracted from a difference; subtracting 0.0 must come to the same.
TEST_P(RowCleaning, WithoutADynamicBiasIsTheBareDifferenceOverTheFlat) {
    Values values{12};
    Stretch stretch{10'000, values};
    auto expected = stretch.cleaned;
    for (std::size_t i = 0; i < stretch.raw.size(); ++i) {
        const double raw = stretch.raw[i];
        const double bias = stretch.master_bias[i];
        const double flat = stretch.flat[i];
        expected[i + 1] = static_cast<float>((raw - bias) / flat);
    }
    CleanPixels(stretch.raw.data(), stretch.master_bias.data(), stretch.flat.data(), 0.0,
                stretch.cleaned.data() + 1, stretch.raw.size());
    EXPECT_EQ(Bits(stretch.cleaned), Bits(expected));
}

}  // namespace
}  // namespace vosk::image_processing
