#include <vosk/reference/cleaning.hpp>

#include "cleaningBench.hpp"
#include "rowCleaning.hpp"

namespace vosk::image_processing {
namespace {

using CleanedStretch = OnEachInstructionSet;
INSTANTIATE_TEST_SUITE_P(Targets, CleanedStretch, OnEachInstructionSet::All(), OnEachInstructionSet::Name);

constexpr float UNTOUCHED = -12345.0F;

// Vectors of exactly their size, so that a sanitizer sees a read or a write beside them.
TEST_P(CleanedStretch, GivesTheBitsOfThePlainLoopForEveryLengthAndSource) {
    Values special{11};
    Values ordinary{11, 0};
    const double infinity = std::numeric_limits<double>::infinity();
    for (std::size_t count = 0; count < 70; ++count) {
        for (const double dynamic : {0.0, -3.25, 0x1p101, 1e300, infinity, std::nan("")}) {
            Values& values = count % 2 == 0 ? special : ordinary;
            std::vector<float> bias(count);
            std::vector<float> flat(count);
            std::vector<float> expected(count + 2, UNTOUCHED);  // with a pixel on each side
            std::vector<std::uint16_t> in_order(count);
            std::vector<std::uint16_t> scattered(count);
            std::vector<std::uint32_t> positions(count);
            std::iota(positions.begin(), positions.end(), 0U);
            std::shuffle(positions.begin(), positions.end(), values.Random());
            std::vector<std::uint16_t> to_right(count * TAP_STEP, 0xFFFF);  // as one of several taps
            std::vector<std::uint16_t> to_left = to_right;
            for (std::size_t i = 0; i < count; ++i) {
                bias[i] = values.Bias();
                flat[i] = values.Flat();
                const std::uint16_t raw = values.Raw();
                in_order[i] = scattered[positions[i]] = raw;
                to_right[i * TAP_STEP] = to_left[(count - 1 - i) * TAP_STEP] = raw;
                expected[i + 1] = reference::CleanedPixel(raw, bias[i], dynamic, flat[i]);
            }
            ASSERT_TRUE(count % 2 == 0 || IsOrdinary(bias, flat));
            const bool is_ordinary = std::abs(dynamic) <= 0x1p101 && IsOrdinary(bias, flat);
            const std::uint16_t* const last = to_left.data() + (count == 0 ? 0 : (count - 1) * TAP_STEP);
            for (const Stretch& stretch :
                 {Stretch{in_order.data(), nullptr, 1, 0, count, dynamic, 1, 0},
                  Stretch{scattered.data(), positions.data(), 0, 0, count, dynamic, 1, 0},
                  Stretch{to_right.data(), nullptr, TAP_STEP, 0, count, dynamic, 1, 0},
                  Stretch{last, nullptr, -TAP_STEP, 0, count, dynamic, 1, 0}}) {
                std::vector<float> cleaned(count + 2, UNTOUCHED);
                CleanStretches(&stretch, 1, {bias.data(), flat.data(), is_ordinary, count},
                               cleaned.data() + 1);
                ASSERT_TRUE(SameBits(cleaned, expected))
                    << count << ", " << dynamic << ", step " << stretch.step;
            }
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
                const Stretch stretch{raw.data(), nullptr, 1, 0, COUNT, -signal, 1, 0};
                CleanStretches(&stretch, 1, {bias.data(), flat.data(), true, COUNT}, cleaned.data());
                ASSERT_TRUE(SameBits(cleaned, expected)) << signal << " / " << gain;
            }
        }
    }
}

}  // namespace
}  // namespace vosk::image_processing
