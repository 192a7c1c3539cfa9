#include "cameras/frameRenderer.hpp"

#include "cameras/renderRow.hpp"
#include "portableRandom.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <stdexcept>
#include <utility>

namespace vosk::rig {
namespace {

// What a hot pixel holds above its bias, in counts.
constexpr double HOT_LOWEST = 500.0;
constexpr double HOT_HIGHEST = 6000.0;

// From -1 up to 1 and back, once a period.
float TriangleWave(std::uint64_t time, std::uint64_t period) {
    const double phase = static_cast<double>(time % period) / static_cast<double>(period);
    return static_cast<float>(4.0 * std::abs(phase - 0.5) - 1.0);
}

}  // namespace

FrameRenderer::FrameRenderer(std::shared_ptr<const CameraSensor> sensor, std::uint64_t seed)
    : m_sensor(std::move(sensor)),
      m_seed(seed),
      m_profile(m_sensor->model.spot_rms),
      m_noise(m_sensor->model.Stride() + NOISE_WINDOWS),
      m_first_bad(m_sensor->model.height + 1),
      m_light(m_sensor->model.RawSize()),
      m_lit(m_sensor->model.height),
      m_column_shares(m_profile.Size()),
      m_row_shares(m_profile.Size()),
      m_counts(m_sensor->model.Stride()) {
    PortableRandom random(Scatter(seed));
    for (float& value : m_noise) value = static_cast<float>(random.Normal());
    for (const BadPixel& pixel : m_sensor->bad_pixels) ++m_first_bad[pixel.y + 1];
    std::partial_sum(m_first_bad.begin(), m_first_bad.end(), m_first_bad.begin());
}

void FrameRenderer::Render(std::uint64_t number, std::span<const Spot> spots, std::span<std::uint16_t> raw) {
    const CameraModel& model = m_sensor->model;
    if (m_sensor->position.empty()) {
        Render(number, spots, ReadoutWindow{0, 0, model.width, model.height}, raw);
        return;
    }
    RequireSize(raw.size());
    for (const Spot& spot : spots) AddSpot(spot);
    for (std::size_t row = 0; row < model.height; ++row) {
        RenderRowOf(number, row);
        const std::uint32_t* position = m_sensor->position.data() + row * model.Stride();
        for (std::size_t i = 0; i < m_counts.size(); ++i) raw[position[i]] = m_counts[i];
    }
}

void FrameRenderer::Render(std::uint64_t number, std::span<const Spot> spots, const ReadoutWindow& window,
                           std::span<std::uint16_t> raw) {
    const CameraModel& model = m_sensor->model;
    RequireSize(raw.size());
    if (!m_sensor->position.empty())
        throw std::invalid_argument("camera " + model.name + " reads no windows");
    if (window.x > model.width || window.width > model.width - window.x || window.y > model.height ||
        window.height > model.height - window.y)
        throw std::invalid_argument("a window reaches beyond the sensor of camera " + model.name);
    for (const Spot& spot : spots) AddSpot(spot);
    auto out = raw.begin();
    for (std::size_t row = window.y; row < window.y + window.height; ++row) {
        RenderRowOf(number, row);
        const auto begin = m_counts.begin() + static_cast<std::ptrdiff_t>(window.x);
        out = std::copy(begin, begin + static_cast<std::ptrdiff_t>(window.width), out);
    }
    for (std::size_t row = 0; row < model.height; ++row) Darken(row);  // what fell beside the window
}

float FrameRenderer::Drift(std::uint64_t number, std::size_t group) const {
    const CameraModel& model = m_sensor->model;
    // Neighbouring groups are at neighbouring phases, so that the slow drift rolls over the image.
    const float slow = TriangleWave(number + 16 * group, DRIFT_PERIOD);
    const float fast = m_noise[Scatter(Scatter(m_seed + 1) ^ (number << 16U) ^ group) % m_noise.size()];
    return model.drift_swing * slow + model.drift_noise * fast;
}

void FrameRenderer::RequireSize(std::size_t size) const {
    if (size != m_sensor->model.RawSize())
        throw std::invalid_argument("a raw frame of camera " + m_sensor->model.name + " has " +
                                    std::to_string(m_sensor->model.RawSize()) + " values, not " +
                                    std::to_string(size));
}

void FrameRenderer::Darken(std::size_t row) {
    if (m_lit[row] == 0) return;
    const std::size_t stride = m_sensor->model.Stride();
    std::fill_n(m_light.begin() + static_cast<std::ptrdiff_t>(row * stride), stride, 0.0F);
    m_lit[row] = 0;
}

void FrameRenderer::AddSpot(const Spot& spot) {
    const CameraModel& model = m_sensor->model;
    const auto size = static_cast<std::ptrdiff_t>(m_profile.Size());
    const auto width = static_cast<std::ptrdiff_t>(model.width);
    const auto height = static_cast<std::ptrdiff_t>(model.height);
    const auto near = [size](double center, std::ptrdiff_t extent) {
        return center > -static_cast<double>(size) && center < static_cast<double>(extent + size);
    };
    if (!near(spot.x, width) || !near(spot.y, height)) return;  // a NaN too
    const std::ptrdiff_t x = m_profile.Evaluate(spot.x, m_column_shares);
    const std::ptrdiff_t y = m_profile.Evaluate(spot.y, m_row_shares);
    const std::ptrdiff_t first = std::max<std::ptrdiff_t>(0, -x);
    const std::ptrdiff_t last = std::min(size, width - x);
    const auto flux = static_cast<float>(spot.flux);
    for (std::ptrdiff_t j = std::max<std::ptrdiff_t>(0, -y); j < std::min(size, height - y); ++j) {
        const auto row = static_cast<std::size_t>(y + j);
        const float light = flux * m_row_shares[static_cast<std::size_t>(j)];
        float* const pixels = m_light.data() + row * model.Stride();
        const float* const shares = m_column_shares.data();
        for (std::ptrdiff_t i = first; i < last; ++i) pixels[x + i] += light * shares[i];
        m_lit[row] = 1;
    }
}

void FrameRenderer::RenderRowOf(std::uint64_t number, std::size_t row) {
    const CameraModel& model = m_sensor->model;
    const std::size_t first = row * model.Stride();
    const std::uint64_t row_key = Scatter(Scatter(Scatter(m_seed) + number) + row);
    const float* noise = m_noise.data() + row_key % NOISE_WINDOWS;
    RenderRow(
        {m_light.data() + first, m_sensor->sensitivity.data() + first, m_sensor->bias.data() + first, noise},
        {model.background, Drift(number, row / GROUP_ROWS), model.gain, model.read_noise * model.read_noise},
        m_counts.size(), m_counts.data());
    Darken(row);
    for (std::size_t i = m_first_bad[row]; i < m_first_bad[row + 1]; ++i) {
        const BadPixel& pixel = m_sensor->bad_pixels[i];
        if (!pixel.hot) continue;
        const double excess = HOT_LOWEST + (HOT_HIGHEST - HOT_LOWEST) * UnitInterval(Scatter(row_key + i));
        m_counts[pixel.x] = static_cast<std::uint16_t>(m_counts[pixel.x] + excess);
    }
}

}  // namespace vosk::rig
