#include "panelKernels.hpp"

#include <algorithm>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "panelKernels.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace vosk::common::math::detail::HWY_NAMESPACE {
namespace {

#if HWY_TARGET == HWY_SCALAR || HWY_TARGET == HWY_EMU128 || HWY_HAVE_SCALABLE

void AddRun(const float* panel, std::size_t columns, const float* a, const float* b, float* product_a,
            float* product_b) {
    for (std::size_t row = 0; row < PANEL_ROWS; ++row) {
        float sum_a = 0.0F;
        float sum_b = 0.0F;
        for (std::size_t column = 0; column < columns; ++column) {
            const float value = panel[column * PANEL_ROWS + row];
            sum_a += value * a[column];
            sum_b += value * b[column];
        }
        product_a[row] += sum_a;
        product_b[row] += sum_b;
    }
}

#else

namespace hn = hwy::HWY_NAMESPACE;

constexpr std::size_t LANES = std::min<std::size_t>(PANEL_ROWS / 4, HWY_MAX_BYTES / sizeof(float));
constexpr hn::FixedTag<float, LANES> FLOATS{};
using Floats = hn::Vec<decltype(FLOATS)>;

// Four vectors of rows by two vectors of columns: eight sums, as many as the multipliers have in flight, and
// with their operands no more than the smallest set of registers holds.
void AddRun(const float* panel, std::size_t columns, const float* a, const float* b, float* product_a,
            float* product_b) {
    for (std::size_t row = 0; row < PANEL_ROWS; row += 4 * LANES) {
        Floats a0 = hn::Zero(FLOATS);
        Floats a1 = a0;
        Floats a2 = a0;
        Floats a3 = a0;
        Floats b0 = a0;
        Floats b1 = a0;
        Floats b2 = a0;
        Floats b3 = a0;
        const float* rows = panel + row;
        for (std::size_t column = 0; column < columns; ++column, rows += PANEL_ROWS) {
            const Floats of_a = hn::Set(FLOATS, a[column]);
            const Floats of_b = hn::Set(FLOATS, b[column]);
            const auto add = [&](std::size_t vector, Floats& sum_a, Floats& sum_b) HWY_ATTR {
                const Floats values = hn::Load(FLOATS, rows + vector * LANES);
                sum_a = hn::MulAdd(values, of_a, sum_a);
                sum_b = hn::MulAdd(values, of_b, sum_b);
            };
            add(0, a0, b0);
            add(1, a1, b1);
            add(2, a2, b2);
            add(3, a3, b3);
        }
        const auto store = [&](std::size_t vector, Floats sum_a, Floats sum_b) HWY_ATTR {
            float* const to_a = product_a + row + vector * LANES;
            float* const to_b = product_b + row + vector * LANES;
            hn::StoreU(hn::Add(hn::LoadU(FLOATS, to_a), sum_a), FLOATS, to_a);
            hn::StoreU(hn::Add(hn::LoadU(FLOATS, to_b), sum_b), FLOATS, to_b);
        };
        store(0, a0, b0);
        store(1, a1, b1);
        store(2, a2, b2);
        store(3, a3, b3);
    }
}

#endif

void MultiplyPanel(const float* panel, std::size_t columns, const float* a, const float* b, float* product_a,
                   float* product_b) {
    std::fill_n(product_a, PANEL_ROWS, 0.0F);
    std::fill_n(product_b, PANEL_ROWS, 0.0F);
    for (std::size_t column = 0; column < columns; column += RUN) {
        AddRun(panel + column * PANEL_ROWS, std::min(RUN, columns - column), a + column, b + column,
               product_a, product_b);
    }
}

}  // namespace
}  // namespace vosk::common::math::detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace vosk::common::math::detail {

HWY_EXPORT(MultiplyPanel);

void MultiplyPanel(const float* panel, std::size_t columns, const float* a, const float* b, float* product_a,
                   float* product_b) {
    HWY_DYNAMIC_DISPATCH(MultiplyPanel)(panel, columns, a, b, product_a, product_b);
}

}  // namespace vosk::common::math::detail
#endif
