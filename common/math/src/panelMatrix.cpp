#include "panelKernels.hpp"

#include <vosk/common/assert.hpp>
#include <vosk/common/instructionSet.hpp>
#include <vosk/common/math/panelMatrix.hpp>

#include <algorithm>
#include <array>

namespace vosk::common::math {

using detail::PANEL_ROWS;

PanelMatrix::PanelMatrix(std::span<const float> matrix, std::size_t rows, std::size_t columns)
    : m_rows{rows},
      m_columns{columns},
      m_panels((rows + PANEL_ROWS - 1) / PANEL_ROWS * PANEL_ROWS * columns) {
    VOSK_ASSERT(matrix.size() == rows * columns);
    for (std::size_t row = 0; row < rows; ++row) {
        const std::span from = matrix.subspan(row * columns, columns);
        float* to = m_panels.data() + row / PANEL_ROWS * PANEL_ROWS * columns + row % PANEL_ROWS;
        for (std::size_t column = 0; column < columns; ++column) to[column * PANEL_ROWS] = from[column];
    }
    ChooseInstructionSet();
}

void PanelMatrix::Multiply(std::span<const float> a, std::span<const float> b, std::span<float> product_a,
                           std::span<float> product_b) const {
    VOSK_ASSERT(a.size() == m_columns && b.size() == m_columns);
    VOSK_ASSERT(product_a.size() == m_rows && product_b.size() == m_rows);
    const float* panel = m_panels.data();
    const std::size_t whole_rows = m_rows / PANEL_ROWS * PANEL_ROWS;
    for (std::size_t row = 0; row < whole_rows; row += PANEL_ROWS, panel += PANEL_ROWS * m_columns) {
        detail::MultiplyPanel(panel, m_columns, a.data(), b.data(), product_a.data() + row,
                              product_b.data() + row);
    }
    if (whole_rows == m_rows) return;
    std::array<float, PANEL_ROWS> last_a;
    std::array<float, PANEL_ROWS> last_b;
    detail::MultiplyPanel(panel, m_columns, a.data(), b.data(), last_a.data(), last_b.data());
    std::copy_n(last_a.begin(), m_rows - whole_rows,
                product_a.begin() + static_cast<std::ptrdiff_t>(whole_rows));
    std::copy_n(last_b.begin(), m_rows - whole_rows,
                product_b.begin() + static_cast<std::ptrdiff_t>(whole_rows));
}

}  // namespace vosk::common::math
