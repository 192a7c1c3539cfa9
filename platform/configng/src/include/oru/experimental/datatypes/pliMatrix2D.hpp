#pragma once

// A small dense matrix as it stands in a configuration: read once at set-up, then copied into whatever
// computes with it.

#include <cstddef>
#include <vector>

namespace oru::experimental::datatypes {

template <class T>
class PliMatrix2D {
public:
    PliMatrix2D() = default;
    PliMatrix2D(std::size_t rows, std::size_t columns)
        : m_rows{rows}, m_columns{columns}, m_data(rows * columns) {}

    std::size_t GetRows() const noexcept { return m_rows; }
    std::size_t GetColumns() const noexcept { return m_columns; }

    T& operator()(std::size_t row, std::size_t column) { return m_data.at(row * m_columns + column); }
    const T& operator()(std::size_t row, std::size_t column) const {
        return m_data.at(row * m_columns + column);
    }

    // All elements, row after row.
    const std::vector<T>& GetData() const noexcept { return m_data; }

private:
    std::size_t m_rows{0};
    std::size_t m_columns{0};
    std::vector<T> m_data;
};

}  // namespace oru::experimental::datatypes
