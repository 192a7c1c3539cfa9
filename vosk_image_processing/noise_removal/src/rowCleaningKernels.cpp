#include "rowCleaning.hpp"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "rowCleaningKernels.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cmath>
#include <type_traits>

HWY_BEFORE_NAMESPACE();
namespace vosk::image_processing::HWY_NAMESPACE {

// Where the counts of a stretch of pixels come from.
struct InOrder {
    const std::uint16_t* raw;
    std::uint16_t operator[](std::size_t i) const { return raw[i]; }
};

template <std::ptrdiff_t STEP>
struct OfATap {
    const std::uint16_t* raw;
    std::uint16_t operator[](std::size_t i) const { return raw[static_cast<std::ptrdiff_t>(i) * STEP]; }
};

struct Scattered {
    const std::uint16_t* raw;
    const std::uint32_t* positions;
    std::uint16_t operator[](std::size_t i) const { return raw[positions[i]]; }
};

#if HWY_TARGET == HWY_SCALAR || HWY_TARGET == HWY_EMU128

struct Division {};
using OrdinaryDivision = Division;

// Without vectors the plain loop does; Highway's own emulation would cut what overflows to the largest float.
template <class Divide, class Source>
HWY_INLINE bool CleanInVectors(const Source&, const float*, const float*, double, float*, std::size_t) {
    return false;
}

#else

namespace hn = hwy::HWY_NAMESPACE;

template <class D, class V>
HWY_INLINE hn::Vec<D> Widen(D doubles, V counts) {
    return hn::PromoteTo(doubles, hn::PromoteTo(hn::Rebind<std::int32_t, D>(), counts));
}

template <class D>
HWY_INLINE hn::Vec<D> Load(D doubles, const InOrder& source, std::size_t i) {
    return Widen(doubles, hn::LoadU(hn::Rebind<std::uint16_t, D>(), source.raw + i));
}

// The counts between a tap's pixel and its next make two words: the pixel is the lowest part of the first.
template <class D, std::ptrdiff_t STEP>
HWY_INLINE hn::Vec<D> Load(D doubles, const OfATap<STEP>& source, std::size_t i) {
    static_assert(TAP_STEP * sizeof(std::uint16_t) == 2 * sizeof(std::uint64_t));
    const hn::RebindToUnsigned<D> words;
    const hn::Repartition<std::uint16_t, decltype(words)> counts;
    const std::size_t lanes = hn::Lanes(words);
    const std::size_t leftmost = STEP > 0 ? i : i + lanes - 1;
    const std::uint16_t* const raw = source.raw + static_cast<std::ptrdiff_t>(leftmost) * STEP;
    const auto low = hn::BitCast(words, hn::LoadU(counts, raw));
    const auto high = hn::BitCast(words, hn::LoadU(counts, raw + hn::Lanes(counts)));
    const auto pixels = hn::And(hn::ConcatEven(words, high, low), hn::Set(words, 0xFFFF));
    const auto ordered = STEP > 0 ? pixels : hn::Reverse(words, pixels);
    // In the lowest bits of 2^52 an integer is a double, all but a subtraction.
    const auto base = hn::Set(doubles, 0x1p52);
    return hn::Sub(hn::BitCast(doubles, hn::Or(ordered, hn::BitCast(words, base))), base);
}

// Up to four counts, the first in the lowest bits.
template <std::size_t COUNT>
HWY_INLINE std::uint64_t Pack(const std::uint16_t* raw, const std::uint32_t* positions) {
    std::uint64_t packed = 0;
    for (std::size_t i = 0; i < COUNT; ++i) packed |= std::uint64_t{raw[positions[i]]} << (16 * i);
    return packed;
}

// A vector of counts that lie apart, put together in registers: a detour through memory waits for the narrow
// stores before the wide load, and the gather instructions of CPUs are no faster.
template <class D>
HWY_INLINE hn::Vec<D> Gather(D counts, const std::uint16_t* raw, const std::uint32_t* positions) {
    constexpr std::size_t LANES = hn::MaxLanes(D());
    if constexpr (HWY_HAVE_SCALABLE) {
        std::uint16_t values[LANES];
        for (std::size_t lane = 0; lane < hn::Lanes(counts); ++lane) values[lane] = raw[positions[lane]];
        return hn::LoadU(counts, values);
    } else if constexpr (LANES == 8) {
        const hn::Repartition<std::uint64_t, D> quads;
        const auto low = hn::Set(quads, Pack<4>(raw, positions));
        const auto high = hn::Set(quads, Pack<4>(raw, positions + 4));
        return hn::BitCast(counts, hn::InterleaveLower(quads, low, high));
    } else {
        using Word = std::conditional_t<LANES == 4, std::uint64_t, std::uint32_t>;
        const hn::Repartition<Word, D> word;
        return hn::BitCast(counts, hn::Set(word, static_cast<Word>(Pack<LANES>(raw, positions))));
    }
}

template <class D>
HWY_INLINE hn::Vec<D> Load(D doubles, const Scattered& source, std::size_t i) {
    return Widen(doubles, Gather(hn::Rebind<std::uint16_t, D>(), source.raw, source.positions + i));
}

struct Division {
    template <class D, class V, class F>
    static HWY_INLINE V Quotient(D doubles, V signal, F flat) {
        return hn::Div(signal, hn::PromoteTo(doubles, flat));
    }
};

#if HWY_TARGET <= HWY_AVX3

// The same bits in two thirds of the time, where nothing leaves the range of doubles. A guess of the
// reciprocal, right to 11.4 bits, is brought to 45; a first quotient has these; its remainder is exact (24
// bits times 53 less something near), and so the second quotient is off by 2^-90 before it is rounded. The
// exact quotient of 53 bits by 24 cannot lie closer than 2^-78 to a point where the rounding turns.
struct OrdinaryDivision {
    template <class D, class V, class F>
    static HWY_INLINE V Quotient(D doubles, V signal, F flat) {
        const auto gain = hn::PromoteTo(doubles, flat);
        const auto guess = hn::PromoteTo(doubles, hn::ApproximateReciprocal(flat));
        const auto error = hn::NegMulAdd(gain, guess, hn::Set(doubles, 1.0));
        const auto series = hn::MulAdd(hn::MulAdd(error, error, error), error, error);
        const auto reciprocal = hn::MulAdd(series, guess, guess);
        const auto quotient = hn::Mul(signal, reciprocal);
        return hn::MulAdd(hn::NegMulAdd(gain, quotient, signal), reciprocal, quotient);
    }
};

#else

using OrdinaryDivision = Division;  // shorter vectors divide as fast, and their guesses are too coarse

#endif

// False, and nothing done, if there are fewer pixels than a vector holds.
template <class Divide, class Source>
HWY_INLINE bool CleanInVectors(const Source& source, const float* master_bias, const float* flat,
                               double dynamic_bias, float* cleaned, std::size_t count) {
    const hn::CappedTag<double, 8> doubles;
    const hn::Rebind<float, decltype(doubles)> floats;
    const std::size_t lanes = hn::Lanes(doubles);
    if (count < lanes) return false;
    const auto dynamic = hn::Set(doubles, dynamic_bias);
    const auto clean = [&](std::size_t i) {
        const auto raw = Load(doubles, source, i);
        const auto bias = hn::PromoteTo(doubles, hn::LoadU(floats, master_bias + i));
        const auto signal = hn::Sub(hn::Sub(raw, bias), dynamic);
        const auto quotient = Divide::Quotient(doubles, signal, hn::LoadU(floats, flat + i));
        hn::StoreU(hn::DemoteTo(floats, quotient), floats, cleaned + i);
    };
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes) clean(i);
    if (i < count) clean(count - lanes);  // covers some pixels of the vector before again
    return true;
}

#endif

template <class Divide, class Source>
HWY_INLINE void Clean(const Source& source, const float* master_bias, const float* flat, double dynamic_bias,
                      float* cleaned, std::size_t count) {
    if (CleanInVectors<Divide>(source, master_bias, flat, dynamic_bias, cleaned, count)) return;
    for (std::size_t i = 0; i < count; ++i) {
        const double signal = static_cast<double>(source[i]) - static_cast<double>(master_bias[i]);
        cleaned[i] = static_cast<float>((signal - dynamic_bias) / static_cast<double>(flat[i]));
    }
}

template <class Divide, class Source>
HWY_INLINE void CleanRows(Source source, const Stretch& stretch, const Calibration& calibration,
                          float* cleaned) {
    for (std::size_t row = 0, first = stretch.first; row < stretch.rows; ++row, first += calibration.stride) {
        Clean<Divide>(source, calibration.master_bias + first, calibration.flat + first, stretch.dynamic_bias,
                      cleaned + first, stretch.count);
        source.raw += stretch.raw_stride;
    }
}

template <class Divide>
HWY_INLINE void CleanBy(const Stretch* stretches, std::size_t size, const Calibration& given,
                        float* cleaned) {
    // Copies stay in registers: a store of pixels might change what is read through a pointer.
    const Calibration calibration = given;
    for (const Stretch* at = stretches; at != stretches + size; ++at) {
        const Stretch stretch = *at;
        const auto clean = [&](auto source) { CleanRows<Divide>(source, stretch, calibration, cleaned); };
        if (stretch.positions != nullptr) {
            clean(Scattered{stretch.raw, stretch.positions});
        } else if (stretch.step == TAP_STEP) {
            clean(OfATap<TAP_STEP>{stretch.raw});
        } else if (stretch.step == -TAP_STEP) {
            clean(OfATap<-TAP_STEP>{stretch.raw});
        } else {
            clean(InOrder{stretch.raw});
        }
    }
}

void CleanStretches(const Stretch* stretches, std::size_t size, const Calibration& calibration,
                    float* cleaned) {
    if (calibration.is_ordinary) {
        CleanBy<OrdinaryDivision>(stretches, size, calibration, cleaned);
    } else {
        CleanBy<Division>(stretches, size, calibration, cleaned);
    }
}

}  // namespace vosk::image_processing::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace vosk::image_processing {

HWY_EXPORT(CleanStretches);

bool IsOrdinary(std::span<const float> master_bias, std::span<const float> flat) {
    constexpr float LARGEST = 0x1p100F;
    return std::ranges::all_of(master_bias, [](float bias) { return std::abs(bias) <= LARGEST; }) &&
           std::ranges::all_of(flat, [](float gain) {
               return std::abs(gain) >= 1.0F / LARGEST && std::abs(gain) <= LARGEST;
           });
}

void CleanStretches(const Stretch* stretches, std::size_t size, const Calibration& calibration,
                    float* cleaned) {
    HWY_DYNAMIC_DISPATCH(CleanStretches)(stretches, size, calibration, cleaned);
}

}  // namespace vosk::image_processing
#endif
