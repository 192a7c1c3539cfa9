#pragma once

// A matrix that is multiplied by two vectors at once: one pass over memory in the place of two. It is packed
// into panels of 64 rows, each stored column by column, so that a vector lane is a row and no sum runs across
// lanes. Single precision. A row's terms are added up in runs of 256, then the runs: an element is off by at
// most (258 + columns / 256) * 2^-24 times the sum of its terms' magnitudes, to first order.

#include <boost/align/aligned_allocator.hpp>

#include <cstddef>
#include <span>
#include <vector>

namespace vosk::common::math {

class PanelMatrix {
public:
    // Copies `matrix`, row-major, of rows * columns elements.
    PanelMatrix(std::span<const float> matrix, std::size_t rows, std::size_t columns);

    // The products of the matrix with `a` and `b`. The vectors have as many elements as the matrix has
    // columns, the products as many as it has rows. Any thread; allocates nothing.
    void Multiply(std::span<const float> a, std::span<const float> b, std::span<float> product_a,
                  std::span<float> product_b) const;

private:
    std::size_t m_rows;
    std::size_t m_columns;
    std::vector<float, boost::alignment::aligned_allocator<float, 64>>
        m_panels;  // the last one filled up with 0
};

}  // namespace vosk::common::math
