#include <fmt/format.h>
#include <vosk/common/assert.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/image_processing/centroiding.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <stdexcept>

#include <vosk/common/instructionSet.hpp>
#include "brightest.hpp"
#include "momentKernels.hpp"

namespace vosk::image_processing {

// The constructors' parameters have names of their own, as g++ warns of those that hide a member.
CentroidingBase::CentroidingBase(std::size_t width, std::size_t height, double limit)
    : img_width{width}, img_height{height}, img_size{width * height}, saturation{limit} {
    if (!(saturation >= 0.0)) {
        common::LogAndThrow<std::invalid_argument>(
            fmt::format("Centroiding: saturation must not be negative: {}", saturation));
    }
    common::LogDebug("Centroiding: img_width: {}, img_height: {}, img_size: {}, saturation: {}", img_width,
                     img_height, img_size, saturation);
    common::ChooseInstructionSet();
}

void CentroidingBase::CheckAll(std::size_t frame_size, std::span<const Roi> rois,
                               std::span<defs::Slope> slopes) const {
    VOSK_ASSERT(slopes.size() == rois.size());
    CheckFrameSize(frame_size);
    for (const Roi& roi : rois) RangeOf(roi);
}

void CentroidingBase::RefuseFrame() const {
    common::LogAndThrow<std::invalid_argument>(
        fmt::format("ForEachPixel: required frame size: {}", img_size));
}

void CentroidingBase::SetNothing() {
    flux = 0.0;
    x = 0.0;
    y = 0.0;
}

void CentroidingBase::SetPosition(const Roi& roi, double cx, double cy) {
    x = std::clamp(roi.x_start + cx - roi.ref_x, -saturation, saturation);
    y = std::clamp(roi.y_start + cy - roi.ref_y, -saturation, saturation);
}

void CentroidingBase::SetFromMoments(const Roi& roi, const Moments& moments) {
    if (moments.sum == 0.0) return SetNothing();
    flux = moments.sum;
    SetPosition(roi, moments.x / moments.sum, moments.y / moments.sum);
}

template <class T>
void Centroiding<T>::ComputeMany(gsl::span<const T> frame, std::span<const Roi> rois,
                                 std::span<defs::Slope> slopes) {
    this->CheckAll(frame.size(), rois, slopes);
    for (std::size_t i = 0; i < rois.size(); ++i) {
        Compute(frame, rois[i]);
        slopes[i] = {flux, x, y};
    }
}

template <class T>
template <class Sum>
void Centroiding<T>::ComputeByMoments(gsl::span<const T> frame, std::span<const Roi> rois,
                                      std::span<defs::Slope> slopes, const Sum& sum) {
    this->CheckAll(frame.size(), rois, slopes);
    std::array<const T*, detail::MAX_BATCH> first_pixels;
    std::array<Moments, detail::MAX_BATCH> moments;
    for (std::size_t start = 0; start < rois.size();) {
        const std::size_t width = this->RangeOf(rois[start]).Width();
        const std::size_t height = this->RangeOf(rois[start]).Height();
        std::size_t count = 0;
        for (; count < detail::MAX_BATCH && start + count < rois.size(); ++count) {
            const PixelRange range = this->RangeOf(rois[start + count]);
            if (range.Width() != width || range.Height() != height) break;
            first_pixels[count] = frame.data() + range.y_start * img_width + range.x_start;
        }
        if (count == 1) {
            Compute(frame, rois[start]);
            slopes[start] = {flux, x, y};
        } else {
            sum({{first_pixels.data(), count}, img_width, width, height}, moments.data());
            for (std::size_t i = 0; i < count; ++i) {
                SetFromMoments(rois[start + i], moments[i]);
                slopes[start + i] = {flux, x, y};
            }
        }
        start += count;
    }
}

template <class T>
struct CentroidingCOG<T>::Method {
    void operator()(T pixel, double dx, double dy) {
        const double value = pixel;
        moments.sum += value;
        moments.x += value * dx;
        moments.y += value * dy;
    }

    Moments moments{};
};

template <class T>
void CentroidingCOG<T>::Compute(gsl::span<const T> frame, const Roi& roi) {
    Method method;
    this->ForEachPixel(method, frame, roi);
    this->SetFromMoments(roi, method.moments);
}

template <class T>
void CentroidingCOG<T>::ComputeMany(gsl::span<const T> frame, std::span<const Roi> rois,
                                    std::span<defs::Slope> slopes) {
    this->ComputeByMoments(frame, rois, slopes, detail::ManyMoments);
}

template <class T>
CentroidingTSH<T>::CentroidingTSH(std::size_t width, std::size_t height, double limit, float threshold)
    : Centroiding<T>{width, height, limit}, treshold{threshold} {
    if (!std::isnan(treshold)) return;
    common::LogAndThrow<std::invalid_argument>("Centroiding: treshold must be a number");
}

namespace {

// By its bits: compilers make a branch of a condition, and in a noisy frame its misses cost six times the
// sums.
float OrZero(bool condition, float value) {
    const std::uint32_t mask = condition ? ~std::uint32_t{0} : 0U;
    return std::bit_cast<float>(std::bit_cast<std::uint32_t>(value) & mask);
}

}  // namespace

template <class T>
struct CentroidingTSH<T>::Method {
    // Adds 0.0 for a pixel below the threshold, which changes no sum.
    void operator()(T pixel, double dx, double dy) {
        const double value = OrZero(pixel >= threshold, pixel);
        moments.sum += value;
        moments.x += value * dx;
        moments.y += value * dy;
    }

    float threshold;
    Moments moments{};
};

template <class T>
void CentroidingTSH<T>::Compute(gsl::span<const T> frame, const Roi& roi) {
    Method method{treshold};
    this->ForEachPixel(method, frame, roi);
    this->SetFromMoments(roi, method.moments);
}

template <class T>
void CentroidingTSH<T>::ComputeMany(gsl::span<const T> frame, std::span<const Roi> rois,
                                    std::span<defs::Slope> slopes) {
    this->ComputeByMoments(frame, rois, slopes, [this](const detail::RegionBatch& batch, Moments* moments) {
        detail::ManyMomentsFrom(treshold, batch, moments);
    });
}

template <class T>
void CentroidingNBR<T>::SetNBrightest(std::size_t nbrightest, bool weight_pixels) {
    if (nbrightest == 0) {
        common::LogAndThrow<std::invalid_argument>("SetNBrightest: nbrightest must not be 0");
    }
    m_nbrightest = nbrightest;
    m_weight_pixels = weight_pixels;
    Grow(m_keys.size());
}

template <class T>
void CentroidingNBR<T>::Grow(std::size_t size) {
    const std::size_t largest = std::max(size, m_keys.size());
    m_keys.resize(largest);
    m_places.resize(largest);
    const std::size_t count = std::min(m_nbrightest, largest);
    m_pixels.reserve(count);
    m_ranked.resize(std::max(m_ranked.size(), detail::RanksFor(count)));
}

// Fills from the last element towards the first.
template <class T>
struct CentroidingNBR<T>::Method {
    void operator()(T pixel, double /*dx*/, double /*dy*/) { *--end = detail::BrightnessKey(pixel); }

    std::int32_t* end;
};

template <class T>
void CentroidingNBR<T>::Compute(gsl::span<const T> frame, const Roi& roi) {
    this->CheckFrameSize(frame.size());
    // Before the scratch grows to the size of a ROI that no frame has.
    const PixelRange range = this->RangeOf(roi);
    const std::size_t count = std::min(m_nbrightest, range.Size());
    if (count == 0) return this->SetNothing();
    Grow(range.Size());
    Method method{m_keys.data() + range.Size()};
    this->ForEachPixel(method, frame, roi);
    TakeBrightest(frame, range, count);
    SetFromBrightest(roi);
}

template <class T>
void CentroidingNBR<T>::TakeBrightest(gsl::span<const T> frame, const PixelRange& range, std::size_t count) {
    const std::size_t size = range.Size();
    detail::FindBrightest({m_keys.data(), size}, count, {m_places.data(), size}, m_ranked);
    const T* const first = frame.data() + range.y_start * this->img_width + range.x_start;
    const auto width = static_cast<std::uint32_t>(range.Width());
    const auto last = static_cast<std::uint32_t>(size - 1);
    m_pixels.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint32_t position = last - m_places[i];
        const std::uint32_t dy = position / width;
        const std::uint32_t dx = position - dy * width;
        m_pixels[i] = {first[dy * this->img_width + dx], static_cast<double>(dx), static_cast<double>(dy)};
    }
}

template <class T>
void CentroidingNBR<T>::SetFromBrightest(const Roi& roi) {
    const std::size_t count = m_pixels.size();
    const auto weight = [&](std::size_t i) { return static_cast<double>(count - i); };
    double sum = 0.0;
    double weighted_sum = 0.0;
    for (std::size_t i = 0; i < count; ++i) {
        sum += m_pixels[i].value;
        weighted_sum += weight(i) * m_pixels[i].value;
    }
    if (sum == 0.0) return this->SetNothing();
    this->flux = sum;
    double cx = 0.0;
    double cy = 0.0;
    for (std::size_t i = 0; i < count; ++i) {
        double share = 0.0;
        if (!m_weight_pixels) {
            share = m_pixels[i].value / sum;
        } else if (weighted_sum != 0.0) {
            share = weight(i) * m_pixels[i].value / weighted_sum;
        }
        cx += share * m_pixels[i].dx;
        cy += share * m_pixels[i].dy;
    }
    this->SetPosition(roi, cx, cy);
}

template class Centroiding<float>;
template class CentroidingCOG<float>;
template class CentroidingTSH<float>;
template class CentroidingNBR<float>;

}  // namespace vosk::image_processing
