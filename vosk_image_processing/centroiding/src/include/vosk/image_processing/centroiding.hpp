#pragma once

// Centroiding turns the cleaned pixels of a region of interest (ROI) into a flux and the displacement of its
// spot from the ROI's reference point: a plain centre of gravity (COG), one above a threshold (TSH), or one
// over the n brightest pixels (NBR). An estimator knows no threads and locks nothing: each worker owns one.
//
// The results are those of the plain loop, bit for bit: pixels are widened to double and summed in raster
// order, one addition after another. A NaN in the ROI gives a NaN flux, unless TSH skips it. After the
// first ROI of its size an estimator allocates nothing.

#include <vosk/defs/valueTypes.hpp>
#include <vosk/image_processing/pixelRange.hpp>

#include <cstddef>
#include <cstdint>
#include <gsl/span>
#include <span>
#include <vector>

namespace vosk::image_processing {

// The sums from which a centre of gravity follows: of the pixels, and of the pixels times their offsets.
struct Moments {
    double sum{0.0};
    double x{0.0};
    double y{0.0};
};

class CentroidingBase {
public:
    // Width and height are those of the full frame. std::invalid_argument if `saturation` is negative or NaN.
    CentroidingBase(std::size_t img_width, std::size_t img_height, double saturation);
    virtual ~CentroidingBase() = default;
    CentroidingBase(const CentroidingBase&) = delete;
    CentroidingBase& operator=(const CentroidingBase&) = delete;

    const std::size_t img_width;  // also the row stride
    const std::size_t img_height;
    const std::size_t img_size;
    const double saturation;  // x and y are clamped to -saturation..saturation, in pixels

    // Of the ROI computed last.
    double flux{0.0};
    double x{0.0};
    double y{0.0};

protected:
    // These log and throw std::invalid_argument.
    void CheckFrameSize(std::size_t size) const {
        if (size != img_size) RefuseFrame();
    }
    PixelRange RangeOf(const Roi& roi) const {
        return image_processing::RangeOf(roi, img_width, img_height, "ForEachPixel");
    }
    void CheckAll(std::size_t frame_size, std::span<const Roi> rois, std::span<defs::Slope> slopes) const;

    void SetNothing();
    // `cx` and `cy` are offsets from the ROI's start.
    void SetPosition(const Roi& roi, double cx, double cy);
    void SetFromMoments(const Roi& roi, const Moments& moments);

private:
    [[noreturn]] void RefuseFrame() const;
};

template <class T>
class Centroiding : public CentroidingBase {
public:
    using CentroidingBase::CentroidingBase;

    // `frame` is the full frame, row by row. The result stands in `flux`, `x` and `y`. A frame of the wrong
    // size or a ROI that reaches out of it is logged and thrown as std::invalid_argument, and the former
    // result stays. A ROI without pixels, or whose sum is 0.0, gives a flux, x and y of 0.0.
    virtual void Compute(gsl::span<const T> frame, const Roi& roi) = 0;

    // The same for many ROIs of one frame, each result into the slope of its index: as many slopes as
    // ROIs, or the process ends. A ROI that reaches out of the frame is refused before the first
    // result. COG and TSH do ROIs of equal size that follow one another side by side, some four times as
    // fast and with the same bits; a worker does best with 16 and more at a time, few enough for their pixels
    // to stay in its cache.
    virtual void ComputeMany(gsl::span<const T> frame, std::span<const Roi> rois,
                             std::span<defs::Slope> slopes);

    // Calls method(value, dx, dy) for each pixel in raster order, with its offsets from the ROI's start.
    template <class Method>
    void ForEachPixel(Method& method, gsl::span<const T> frame, const Roi& roi) const {
        CheckFrameSize(frame.size());
        const PixelRange range = RangeOf(roi);
        const T* row = frame.data() + range.y_start * img_width + range.x_start;
        for (std::size_t dy = 0; dy < range.Height(); ++dy, row += img_width) {
            const auto row_offset = static_cast<double>(dy);
            double column_offset = 0.0;
            for (std::size_t dx = 0; dx < range.Width(); ++dx, column_offset += 1.0) {
                method(row[dx], column_offset, row_offset);
            }
        }
    }

protected:
    // ComputeMany of an estimator whose moments of equal ROIs sum(batch, moments) takes.
    template <class Sum>
    void ComputeByMoments(gsl::span<const T> frame, std::span<const Roi> rois, std::span<defs::Slope> slopes,
                          const Sum& sum);
};

// The centre of gravity of all pixels.
template <class T>
class CentroidingCOG final : public Centroiding<T> {
public:
    using Centroiding<T>::Centroiding;

    void Compute(gsl::span<const T> frame, const Roi& roi) override;
    void ComputeMany(gsl::span<const T> frame, std::span<const Roi> rois,
                     std::span<defs::Slope> slopes) override;

private:
    struct Method;
};

// The centre of gravity of the pixels at or above the threshold, with their whole values.
template <class T>
class CentroidingTSH final : public Centroiding<T> {
public:
    // std::invalid_argument also if `treshold` is NaN: no pixel would ever reach it.
    CentroidingTSH(std::size_t img_width, std::size_t img_height, double saturation, float treshold);

    void Compute(gsl::span<const T> frame, const Roi& roi) override;
    void ComputeMany(gsl::span<const T> frame, std::span<const Roi> rois,
                     std::span<defs::Slope> slopes) override;

    const float treshold;  // in the unit of the cleaned frame

private:
    struct Method;
};

// The centre of gravity of the n brightest pixels, weighted by rank or not. NaN counts as brighter than all
// else, and 0.0 as brighter than -0.0, which makes no difference to the result. Of pixels that are equal in
// their bits those later in raster order are ranked higher.
template <class T>
class CentroidingNBR final : public Centroiding<T> {
public:
    // Starts with one pixel, weighted.
    using Centroiding<T>::Centroiding;

    // With weights, the brightest of n pixels counts n times, the last once. An `nbrightest` of 0 is logged
    // and thrown as std::invalid_argument, and the former settings stay. More pixels than before take more
    // scratch, which is made here for the ROIs seen so far: no frame has to.
    void SetNBrightest(std::size_t nbrightest, bool weight_pixels);
    std::size_t GetNBrightest() const noexcept { return m_nbrightest; }
    bool GetWeightPixels() const noexcept { return m_weight_pixels; }

    void Compute(gsl::span<const T> frame, const Roi& roi) override;

private:
    struct Method;
    struct Pixel {
        double value;
        double dx;
        double dy;
    };

    // Grows the scratch to ROIs of that size. It never shrinks, so that only a larger ROI allocates.
    void Grow(std::size_t size);
    // The brightest `count` pixels of the range, the brightest first, into m_pixels.
    void TakeBrightest(gsl::span<const T> frame, const PixelRange& range, std::size_t count);
    void SetFromBrightest(const Roi& roi);

    std::size_t m_nbrightest{1};  // never 0
    bool m_weight_pixels{true};

    // Scratch, overwritten by every Compute: 8 bytes a pixel of the largest ROI, and 24 a pixel that takes
    // part, or 32 of many.
    std::vector<std::int32_t> m_keys;     // of the ROI, its last pixel first: the larger, the brighter
    std::vector<std::uint32_t> m_places;  // in m_keys; the brightest first
    std::vector<Pixel> m_pixels;          // the brightest
    std::vector<std::uint64_t> m_ranked;  // key and place in one, where a sort orders them
};

extern template class Centroiding<float>;
extern template class CentroidingCOG<float>;
extern template class CentroidingTSH<float>;
extern template class CentroidingNBR<float>;

}  // namespace vosk::image_processing
