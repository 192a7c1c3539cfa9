#include <fmt/format.h>
#include <vosk/common/assert.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/image_processing/badPixelCorrection.hpp>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <numeric>
#include <stdexcept>

namespace vosk::image_processing {

namespace {

constexpr std::size_t KERNEL_SIZE = 9;

void CheckCoordinate(const char* axis, std::uint32_t value, std::uint32_t extent) {
    if (value > 0 && std::uint64_t{value} + 1 < extent) return;
    throw std::runtime_error{fmt::format("ERR: Bad pixel {}-value {} out of range", axis, value)};
}

}  // namespace

bool Contains(const Roi& roi, const BadPixel& bad_pixel) noexcept {
    const auto& [x, y] = bad_pixel;
    return x >= roi.x_start && x < roi.x_stop && y >= roi.y_start && y < roi.y_stop;
}

bad_pixel_correction_block::bad_pixel_correction_block(std::uint32_t width, std::uint32_t height,
                                                       std::vector<BadPixel> bad_pixels,
                                                       std::vector<float> pixel_weights)
    : m_width{width},
      m_height{height},
      m_bad_pixels{std::move(bad_pixels)},
      m_pixel_weights{std::move(pixel_weights)},
      m_weight_sum{std::accumulate(m_pixel_weights.begin(), m_pixel_weights.end(), 0.0F)} {
    if (m_pixel_weights.size() != KERNEL_SIZE) {
        throw std::runtime_error{fmt::format("ERR: Only supplied {} pixel weights", m_pixel_weights.size())};
    }
    for (const auto& [x, y] : m_bad_pixels) {
        CheckCoordinate("X", x, m_width);
        CheckCoordinate("Y", y, m_height);
    }
    if (m_weight_sum == 0.0F || !std::isfinite(m_weight_sum)) {
        common::LogWarn("Bad pixel weights sum up to {}: repaired pixels will be infinite or no numbers",
                        m_weight_sum);
    }
}

void bad_pixel_correction_block::work(std::span<float> frame, const Roi& roi) const {
    VOSK_ASSERT(frame.size() == std::size_t{m_width} * m_height);
    for (const BadPixel& bad_pixel : m_bad_pixels) {
        if (Contains(roi, bad_pixel)) RepairPixel(frame, bad_pixel);
    }
}

std::vector<BadPixel> bad_pixel_correction_block::BadPixelsOf(const Roi& roi) const {
    std::vector<BadPixel> found;
    std::ranges::copy_if(m_bad_pixels, std::back_inserter(found),
                         [&](const BadPixel& bad_pixel) { return Contains(roi, bad_pixel); });
    return found;
}

void bad_pixel_correction_block::Repair(std::span<float> frame, std::span<const BadPixel> bad_pixels) const {
    VOSK_ASSERT(frame.size() == std::size_t{m_width} * m_height);
    for (const BadPixel& bad_pixel : bad_pixels) RepairPixel(frame, bad_pixel);
}

void bad_pixel_correction_block::RepairPixel(std::span<float> frame, const BadPixel& bad_pixel) const {
    const float* weight = m_pixel_weights.data();
    float* const pixel = frame.data() + std::size_t{bad_pixel.second} * m_width + bad_pixel.first;
    float sum = 0.0F;
    for (const float* row : {pixel - m_width, pixel, pixel + m_width}) {
        for (const float* neighbour = row - 1; neighbour <= row + 1; ++neighbour) {
            // One that is to be ignored may be infinite or NaN: a pixel without sensitivity is.
            if (*weight != 0.0F) sum += *neighbour * *weight;
            ++weight;
        }
    }
    *pixel = sum / m_weight_sum;
}

namespace factory {

using oru::configng::PliConfigInstanceNode;
using oru::configng::PliConfigTypeError;
using oru::configng::PliConfigValueError;

namespace {

const PliConfigInstanceNode& RequireSequence(const PliConfigInstanceNode& node) {
    if (node.IsSequence()) return node;
    throw PliConfigTypeError(
        fmt::format("CreateBadPixelCorrectionAlgorithm: {} must be a sequence", node.GetPath()),
        node.GetWhere());
}

std::vector<BadPixel> ReadPixels(const PliConfigInstanceNode& list) {
    std::vector<BadPixel> pixels;
    for (const auto& pixel : RequireSequence(list)) {
        if (RequireSequence(pixel).GetSize() != 2) {
            throw PliConfigValueError(
                fmt::format("CreateBadPixelCorrectionAlgorithm: {} has {} values, not x and y",
                            pixel.GetPath(), pixel.GetSize()),
                pixel.GetWhere());
        }
        pixels.emplace_back(pixel[0].As<unsigned int>(), pixel[1].As<unsigned int>());
    }
    return pixels;
}

std::vector<float> ReadWeights(const PliConfigInstanceNode& list) {
    std::vector<float> weights;
    for (const auto& weight : RequireSequence(list)) weights.push_back(weight.As<float>());
    return weights;
}

}  // namespace

std::unique_ptr<bad_pixel_correction_block> CreateBadPixelCorrection(const PliConfigInstanceNode& node,
                                                                     const std::string& key,
                                                                     std::size_t width, std::size_t height) {
    if (node.IsMap() && node.Has(key) && node[key].IsMap()) {
        return CreateBadPixelCorrectionAlgorithm(node[key], width, height);
    }
    common::LogDebug("CreateBadPixelCorrectionAlgorithm: bad_pixel_correction not configured, skipping");
    return nullptr;
}

std::unique_ptr<bad_pixel_correction_block> CreateBadPixelCorrectionAlgorithm(
    const PliConfigInstanceNode& node, std::size_t width, std::size_t height) {
    VOSK_ASSERT(width <= std::numeric_limits<std::uint32_t>::max() &&
                height <= std::numeric_limits<std::uint32_t>::max());
    if (!node.IsMap()) common::LogAndThrow("CreateBadPixelCorrectionAlgorithm node not a map");
    if (!node.Has("bad_pixels") || !node.Has("pixel_weights")) {
        common::LogWarn("CreateBadPixelCorrectionAlgorithm: bad_pixel_correction misconfigured, skipping");
        return nullptr;
    }
    common::LogDebug("CreateBadPixelCorrectionAlgorithm: setting up bad pixel correction");
    auto pixels = ReadPixels(node["bad_pixels"]);
    auto weights = ReadWeights(node["pixel_weights"]);
    if (pixels.empty() || weights.size() != KERNEL_SIZE) {
        common::LogDebug("CreateBadPixelCorrectionAlgorithm: no bad pixels, skipping");
        return nullptr;
    }
    return std::make_unique<bad_pixel_correction_block>(static_cast<std::uint32_t>(width),
                                                        static_cast<std::uint32_t>(height), std::move(pixels),
                                                        std::move(weights));
}

}  // namespace factory
}  // namespace vosk::image_processing
