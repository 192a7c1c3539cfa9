#pragma once

// What the tests of cleaning share: values that are easy to get wrong, a comparison of all bits, a LISA
// removal with a given table.

#include <vosk/common/fits.hpp>
#include <vosk/image_processing/noiseRemoval.hpp>
#include <vosk/test/onEachInstructionSet.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <algorithm>
#include <bit>
#include <random>

namespace vosk::image_processing {

using test::OnEachInstructionSet;

// Ordinary values, and now and then one of those that arithmetic is likely to get wrong.
class Values {
public:
    // One value in `rarity` is of those; of 0, none.
    explicit Values(std::uint32_t seed, std::uint32_t rarity = 16) : m_random{seed}, m_rarity{rarity} {}

    std::uint16_t Raw() {
        static constexpr std::uint16_t EDGES[]{0, 1, 32767, 32768, 65534, 65535};
        return m_random() % 8 == 0 ? EDGES[m_random() % std::size(EDGES)]
                                   : static_cast<std::uint16_t>(m_random());
    }
    float Bias() { return IsSpecial() ? Special() : Real(80.0F, 120.0F); }
    float Flat() { return IsSpecial() ? Special() : Real(0.5F, 2.0F); }
    float Real(float low, float high) { return std::uniform_real_distribution<float>{low, high}(m_random); }
    std::mt19937& Random() { return m_random; }

private:
    bool IsSpecial() { return m_rarity != 0 && m_random() % m_rarity == 0; }
    float Special() {
        using Limits = std::numeric_limits<float>;
        static constexpr float SPECIAL[]{
            0.0F,          -0.0F,          Limits::denorm_min(), -Limits::min() / 3.0F, Limits::min(),
            Limits::max(), -Limits::max(), Limits::infinity(),   -Limits::infinity(),   Limits::quiet_NaN(),
            1e-30F,        -7.0F};
        return SPECIAL[m_random() % std::size(SPECIAL)];
    }

    std::mt19937 m_random;
    std::uint32_t m_rarity;
};

// NaN equals itself, and 0 does not equal -0.
inline testing::AssertionResult SameBits(std::span<const float> actual, std::span<const float> expected) {
    if (actual.size() != expected.size()) return testing::AssertionFailure() << "sizes differ";
    const auto [found, wanted] = std::ranges::mismatch(actual, expected, [](float is, float should) {
        return std::bit_cast<std::uint32_t>(is) == std::bit_cast<std::uint32_t>(should);
    });
    if (found == actual.end()) return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << "pixel " << found - actual.begin() << ": " << *found << " instead of " << *wanted;
}

inline Roi At(std::uint16_t x_start, std::uint16_t x_stop, std::uint16_t y_start, std::uint16_t y_stop) {
    return {x_start, x_stop, y_start, y_stop, 2048, 2048, 0.0, 0.0};
}

using LisaTable = defs::AlignedFrame<std::uint32_t>;

template <class Removal = LisaNoiseRemoval>
std::unique_ptr<Removal> MakeLisa(const defs::AlignedFrame<float>& bias,
                                  const defs::AlignedFrame<float>& flat, const LisaTable& table) {
    const test::TempDir dir;
    const std::string path = dir / "table.fits";
    common::Fits::WriteImg<std::uint32_t>(common::Fits::FitsFileWrite(path, true), table, {table.size()});
    return std::make_unique<Removal>(bias, flat, path);
}

}  // namespace vosk::image_processing
