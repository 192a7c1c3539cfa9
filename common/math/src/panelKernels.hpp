#pragma once

// The loop of PanelMatrix, for each instruction set.

#include <cstddef>

namespace vosk::common::math::detail {

inline constexpr std::size_t PANEL_ROWS = 64;
inline constexpr std::size_t RUN = 256;  // terms of a row that are added up by themselves

// The products of one panel with two vectors of `columns` elements, PANEL_ROWS values each.
void MultiplyPanel(const float* panel, std::size_t columns, const float* a, const float* b, float* product_a,
                   float* product_b);

}  // namespace vosk::common::math::detail
