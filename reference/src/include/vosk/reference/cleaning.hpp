#pragma once

// Noise removal pixel by pixel.

#include <vosk/image_processing/roi.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vosk::reference {

inline float CleanedPixel(std::uint16_t raw, float master_bias, double dynamic_bias, float flat) {
    const double signal = static_cast<double>(raw) - static_cast<double>(master_bias);
    return static_cast<float>((signal - dynamic_bias) / static_cast<double>(flat));
}

// ALICE and MARANA: the window's pixels stand packed at the start of the raw frame; all others of the ROI
// become 0.
inline void CleanInWindow(std::span<const std::uint16_t> raw, std::span<const float> master_bias,
                          std::span<const float> flat, const image_processing::Window& window,
                          const image_processing::Roi& roi, std::size_t width, std::span<float> cleaned) {
    for (std::size_t y = roi.y_start; y < roi.y_stop; ++y) {
        for (std::size_t x = roi.x_start; x < roi.x_stop; ++x) {
            const std::size_t i = y * width + x;
            const bool is_read =
                x >= window.x_offset && x < window.XStop() && y >= window.y_offset && y < window.YStop();
            const std::size_t packed = (y - window.y_offset) * window.width + (x - window.x_offset);
            cleaned[i] = is_read ? CleanedPixel(raw[packed], master_bias[i], 0.0, flat[i]) : 0.0F;
        }
    }
}

// LISA: the table finds the counts of 840 x 816 pixels in the raw frame, and the 20 columns without light at
// each side give a dynamic bias for each group of 4 rows. All spans outlive the object.
class LisaCleaning {
public:
    LisaCleaning(std::span<const float> master_bias, std::span<const float> flat,
                 std::span<const std::uint32_t> table)
        : m_master_bias{master_bias}, m_flat{flat}, m_table{table} {}

    // Measures all dynamic biases; `raw` stays until the next one.
    void NewFrame(std::span<const std::uint16_t> raw) {
        m_raw = raw;
        for (std::size_t group = 0; group < m_biases.size(); ++group) m_biases[group] = DynamicBias(group);
    }

    void Clean(const image_processing::Roi& roi) {
        for (std::size_t y = roi.y_start; y < roi.y_stop; ++y) {
            const double dynamic_bias = m_biases[y / GROUP_ROWS];
            for (std::size_t i = y * WIDTH + roi.x_start; i < y * WIDTH + roi.x_stop; ++i) {
                m_cleaned[i] = CleanedPixel(m_raw[m_table[i]], m_master_bias[i], dynamic_bias, m_flat[i]);
            }
        }
    }

    std::span<const float> Frame() const { return m_cleaned; }

private:
    static constexpr std::size_t WIDTH = 840;
    static constexpr std::size_t HEIGHT = 816;
    static constexpr std::size_t GROUP_ROWS = 4;
    static constexpr std::size_t DARK_COLUMNS = 20;  // at each side

    double DynamicBias(std::size_t group) const {
        double sum = 0.0;
        for (std::size_t row = group * GROUP_ROWS; row < (group + 1) * GROUP_ROWS; ++row) {
            for (const std::size_t offset : {std::size_t{0}, WIDTH - DARK_COLUMNS}) {
                for (std::size_t i = row * WIDTH + offset; i < row * WIDTH + offset + DARK_COLUMNS; ++i) {
                    sum += static_cast<double>(m_raw[m_table[i]]);
                    sum -= static_cast<double>(m_master_bias[i]);
                }
            }
        }
        return sum / static_cast<double>(GROUP_ROWS * 2 * DARK_COLUMNS);
    }

    std::span<const float> m_master_bias;
    std::span<const float> m_flat;
    std::span<const std::uint32_t> m_table;
    std::span<const std::uint16_t> m_raw;
    std::array<double, HEIGHT / GROUP_ROWS> m_biases{};
    std::vector<float> m_cleaned = std::vector<float>(WIDTH * HEIGHT);
};

}  // namespace vosk::reference
