#pragma once

// The work of a camera's worker on one frame: from raw counts to the slopes of its ROIs. Each ROI is cleaned,
// its bad pixels are repaired, then its centroid is taken. The worker does that in batches of ROIs that stay
// in its cache, as many centroids cost less in one call. The bits are those of ROI by ROI, in their order.
//
// A batch is cleaned as a whole before its first repair. So no ROI of it, nor the ring around that, may hold
// a pixel that the repair of an earlier one has changed. ROIs without bad pixels may lie anywhere.
//
// Made at set-up, and again after a change of ROIs. Constant afterwards; allocates nothing for a frame.

#include <vosk/defs/valueTypes.hpp>
#include <vosk/image_processing/badPixelCorrection.hpp>
#include <vosk/image_processing/centroiding.hpp>
#include <vosk/image_processing/noiseRemoval.hpp>

#include <cstddef>
#include <cstdint>
#include <gsl/span>
#include <optional>
#include <span>
#include <vector>

namespace vosk::image_processing {

class RegionBatches {
public:
    // `correction` outlives the object; null where no bad pixels are repaired. With one, the pixels around
    // each ROI are cleaned too, as far as the frame goes.
    RegionBatches(std::span<const Roi> rois, const bad_pixel_correction_block* correction);

    // The slopes of all ROIs, each at the index of its ROI: as many slopes as ROIs, or the process ends. The
    // arguments are those of `removal` and `estimator`, with their errors. InvalidateCache() of `removal`
    // comes before, once a frame.
    void ComputeSlopes(gsl::span<const std::uint16_t> raw, const std::optional<Window>& window,
                       NoiseRemovalBase& removal, Centroiding<float>& estimator,
                       std::span<defs::Slope> slopes) const;

    std::size_t GetBatchCount() const noexcept { return m_batches.size(); }

private:
    // Elements from a first one up to, but not including, a last one.
    struct Range {
        template <class T>
        std::span<T> Of(std::span<T> elements) const {
            return elements.subspan(start, stop - start);
        }
        std::size_t start;
        std::size_t stop;
    };
    struct Batch {
        Range rois;
        Range bad_pixels;
    };

    void FindBadPixels();
    void FindBatches();
    bool CanJoin(const Batch& batch, std::size_t roi) const;
    // Whether the repair of one ROI changes a pixel that a later one needs as it was cleaned.
    bool Disturbs(std::size_t repaired, std::size_t later) const;

    const bad_pixel_correction_block* m_correction;
    std::vector<Roi> m_rois;
    std::vector<Roi> m_cleaned;                  // by ROI: with the ring around it, where repair needs that
    std::vector<BadPixel> m_bad_pixels;          // ROI by ROI, in the order of their repair
    std::vector<std::size_t> m_first_bad_pixel;  // by ROI, in m_bad_pixels; and the end
    std::vector<Batch> m_batches;
};

}  // namespace vosk::image_processing
