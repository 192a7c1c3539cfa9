#include "momentKernels.hpp"

#include <algorithm>
#include <array>
#include <cstring>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "momentKernels.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace vosk::image_processing::detail::HWY_NAMESPACE {
namespace {

#if HWY_TARGET == HWY_SCALAR || HWY_TARGET == HWY_EMU128 || HWY_HAVE_SCALABLE

// The plain form: ROI by ROI. Also where the width of vectors is known at run time only.
template <class Keep>
void Sum(const RegionBatch& batch, Keep keep, Moments* moments) {
    for (const float* row : batch.first_pixels) {
        Moments sums;
        for (std::size_t dy = 0; dy < batch.height; ++dy, row += batch.stride) {
            for (std::size_t dx = 0; dx < batch.width; ++dx) {
                const double value = keep(row[dx]);
                sums.sum += value;
                sums.x += value * static_cast<double>(dx);
                sums.y += value * static_cast<double>(dy);
            }
        }
        *moments++ = sums;
    }
}

struct All {
    float operator()(float pixel) const { return pixel; }
};

struct From {
    float operator()(float pixel) const { return pixel >= threshold ? pixel : 0.0F; }
    float threshold;
};

#else

namespace hn = hwy::HWY_NAMESPACE;

// As many ROIs as there are doubles in a vector, but at least the four of a block.
constexpr std::size_t DOUBLES = std::min<std::size_t>(8, HWY_MAX_BYTES / sizeof(double));
constexpr std::size_t REGIONS = std::max<std::size_t>(4, DOUBLES);
constexpr std::size_t VECTORS = REGIONS / DOUBLES;  // of doubles, to hold one value a ROI
constexpr std::size_t COLUMNS = 4;                  // that are loaded and transposed at once

using Floats = hn::FixedTag<float, REGIONS>;
using Doubles = hn::FixedTag<double, DOUBLES>;
using FloatVector = hn::Vec<Floats>;
using DoubleVector = hn::Vec<Doubles>;

// Keeps all pixels.
struct All {
    HWY_INLINE FloatVector operator()(FloatVector pixels) const { return pixels; }
};

// Adds 0.0 for the others: no sum that starts at 0.0 can tell that from leaving them out.
struct From {
    HWY_INLINE FloatVector operator()(FloatVector pixels) const {
        return hn::IfThenElseZero(hn::Ge(pixels, hn::Set(Floats{}, threshold)), pixels);
    }
    float threshold;
};

// Four pixels of a ROI; where a vector has room for eight, behind them four of the ROI four further on.
template <class D>
HWY_INLINE hn::Vec<D> LoadPixels(D floats, const float* const* regions, std::size_t offset) {
    if constexpr (hn::MaxLanes(floats) == COLUMNS) {
        return hn::LoadU(floats, regions[0] + offset);
    } else {
        const hn::Half<D> half;
        return hn::Combine(floats, hn::LoadU(half, regions[COLUMNS] + offset),
                           hn::LoadU(half, regions[0] + offset));
    }
}

// The column `offset` and the three behind it, each with a pixel of every ROI.
HWY_INLINE std::array<FloatVector, COLUMNS> LoadColumns(const float* const* regions, std::size_t offset) {
    const Floats floats;
    const hn::Repartition<double, Floats> pairs;
    const auto a = LoadPixels(floats, regions + 0, offset);
    const auto b = LoadPixels(floats, regions + 1, offset);
    const auto c = LoadPixels(floats, regions + 2, offset);
    const auto d = LoadPixels(floats, regions + 3, offset);
    const auto ab01 = hn::BitCast(pairs, hn::InterleaveLower(floats, a, b));
    const auto cd01 = hn::BitCast(pairs, hn::InterleaveLower(floats, c, d));
    const auto ab23 = hn::BitCast(pairs, hn::InterleaveUpper(floats, a, b));
    const auto cd23 = hn::BitCast(pairs, hn::InterleaveUpper(floats, c, d));
    return {hn::BitCast(floats, hn::InterleaveLower(pairs, ab01, cd01)),
            hn::BitCast(floats, hn::InterleaveUpper(pairs, ab01, cd01)),
            hn::BitCast(floats, hn::InterleaveLower(pairs, ab23, cd23)),
            hn::BitCast(floats, hn::InterleaveUpper(pairs, ab23, cd23))};
}

// The part of a vector that fills a vector of doubles, widened.
template <class D, class V>
HWY_INLINE hn::Vec<D> Widen(D doubles, V pixels, std::size_t part) {
    if constexpr (VECTORS == 1) {
        return hn::PromoteTo(doubles, pixels);
    } else {
        const hn::Half<Floats> half;
        return hn::PromoteTo(doubles, part == 0 ? hn::LowerHalf(half, pixels) : hn::UpperHalf(half, pixels));
    }
}

struct Sums {
    // The product of a float and an offset is exact in double, so that fusing it with its addition, where
    // the machine can, does not change a bit.
    HWY_INLINE void Add(FloatVector pixels, DoubleVector dx, DoubleVector dy) {
        for (std::size_t i = 0; i < VECTORS; ++i) {
            const auto values = Widen(Doubles{}, pixels, i);
            sum[i] = hn::Add(sum[i], values);
            x[i] = hn::MulAdd(values, dx, x[i]);
            y[i] = hn::MulAdd(values, dy, y[i]);
        }
    }

    HWY_INLINE void Store(Moments* moments, std::size_t count) const {
        alignas(64) std::array<std::array<double, REGIONS>, 3> lanes;
        for (std::size_t i = 0; i < VECTORS; ++i) {
            hn::StoreU(sum[i], Doubles{}, &lanes[0][i * DOUBLES]);
            hn::StoreU(x[i], Doubles{}, &lanes[1][i * DOUBLES]);
            hn::StoreU(y[i], Doubles{}, &lanes[2][i * DOUBLES]);
        }
        for (std::size_t i = 0; i < count; ++i) moments[i] = {lanes[0][i], lanes[1][i], lanes[2][i]};
    }

    std::array<DoubleVector, VECTORS> sum;
    std::array<DoubleVector, VECTORS> x;
    std::array<DoubleVector, VECTORS> y;
};

// GROUPS times REGIONS ROIs at once: with two groups, the additions of one hide the latency of the other.
template <std::size_t GROUPS, class Keep>
void SumGroups(const float* const* regions, const RegionBatch& batch, Keep keep,
               std::array<Sums, GROUPS>& sums) {
    const Doubles doubles;
    for (Sums& group : sums) {
        group.sum.fill(hn::Zero(doubles));
        group.x.fill(hn::Zero(doubles));
        group.y.fill(hn::Zero(doubles));
    }
    const std::size_t whole = batch.width / COLUMNS * COLUMNS;
    const std::size_t rest = batch.width - whole;
    for (std::size_t row = 0; row < batch.height; ++row) {
        const auto dy = hn::Set(doubles, static_cast<double>(row));
        const std::size_t start = row * batch.stride;
        for (std::size_t column = 0; column < whole; column += COLUMNS) {
            for (std::size_t group = 0; group < GROUPS; ++group) {
                const auto columns = LoadColumns(regions + group * REGIONS, start + column);
                for (std::size_t i = 0; i < COLUMNS; ++i) {
                    sums[group].Add(keep(columns[i]), hn::Set(doubles, static_cast<double>(column + i)), dy);
                }
            }
        }
        if (rest == 0) continue;
        // The frame may end with the ROI: what is left of the rows is taken from copies.
        for (std::size_t group = 0; group < GROUPS; ++group) {
            std::array<std::array<float, COLUMNS>, REGIONS> copies;
            std::array<const float*, REGIONS> first;
            for (std::size_t region = 0; region < REGIONS; ++region) {
                copies[region].fill(0.0F);
                first[region] = copies[region].data();
                std::memcpy(copies[region].data(), regions[group * REGIONS + region] + start + whole,
                            rest * sizeof(float));
            }
            const auto columns = LoadColumns(first.data(), 0);
            for (std::size_t i = 0; i < rest; ++i) {
                sums[group].Add(keep(columns[i]), hn::Set(doubles, static_cast<double>(whole + i)), dy);
            }
        }
    }
}

template <std::size_t GROUPS, class Keep>
void SumSome(const float* const* regions, std::size_t count, const RegionBatch& batch, Keep keep,
             Moments* moments) {
    std::array<Sums, GROUPS> sums;
    SumGroups<GROUPS>(regions, batch, keep, sums);
    for (std::size_t group = 0; group * REGIONS < count; ++group) {
        sums[group].Store(moments + group * REGIONS, std::min(REGIONS, count - group * REGIONS));
    }
}

template <class Keep>
void Sum(const RegionBatch& batch, Keep keep, Moments* moments) {
    // Lanes without a ROI do the last one again.
    std::array<const float*, MAX_BATCH> regions;
    regions.fill(batch.first_pixels.back());
    std::copy(batch.first_pixels.begin(), batch.first_pixels.end(), regions.begin());
    const std::size_t count = batch.first_pixels.size();
    for (std::size_t done = 0; done < count;) {
        const std::size_t left = count - done;
        if (left <= REGIONS) {
            SumSome<1>(regions.data() + done, left, batch, keep, moments + done);
            return;
        }
        const std::size_t some = std::min(left, 2 * REGIONS);
        SumSome<2>(regions.data() + done, some, batch, keep, moments + done);
        done += some;
    }
}

#endif

void ManyMoments(const RegionBatch& batch, Moments* moments) {
    Sum(batch, All{}, moments);
}

void ManyMomentsFrom(float threshold, const RegionBatch& batch, Moments* moments) {
    Sum(batch, From{threshold}, moments);
}

}  // namespace
}  // namespace vosk::image_processing::detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace vosk::image_processing::detail {

HWY_EXPORT(ManyMoments);
HWY_EXPORT(ManyMomentsFrom);

void ManyMoments(const RegionBatch& batch, Moments* moments) {
    HWY_DYNAMIC_DISPATCH(ManyMoments)(batch, moments);
}

void ManyMomentsFrom(float threshold, const RegionBatch& batch, Moments* moments) {
    HWY_DYNAMIC_DISPATCH(ManyMomentsFrom)(threshold, batch, moments);
}

}  // namespace vosk::image_processing::detail
#endif
