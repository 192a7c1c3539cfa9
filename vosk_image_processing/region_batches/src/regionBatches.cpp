#include <vosk/common/assert.hpp>
#include <vosk/image_processing/regionBatches.hpp>

#include <algorithm>

namespace vosk::image_processing {

namespace {

// More ROIs gain nothing, and more pixels, of 4 bytes in each of three frames and 2 in the raw one, would
// leave the cache of a core before their centroids are taken.
constexpr std::size_t MOST_ROIS = 64;
constexpr std::size_t MOST_PIXELS = 16'384;

}  // namespace

RegionBatches::RegionBatches(std::span<const Roi> rois, const bad_pixel_correction_block* correction)
    : m_correction{correction}, m_rois(rois.begin(), rois.end()), m_cleaned{m_rois} {
    FindBadPixels();
    FindBatches();
}

void RegionBatches::FindBadPixels() {
    m_first_bad_pixel.assign(m_rois.size() + 1, 0);
    if (m_correction == nullptr) return;
    for (std::size_t i = 0; i < m_rois.size(); ++i) {
        m_cleaned[i] = m_rois[i].Enlarge(1);
        const auto found = m_correction->BadPixelsOf(m_rois[i]);
        m_bad_pixels.insert(m_bad_pixels.end(), found.begin(), found.end());
        m_first_bad_pixel[i + 1] = m_bad_pixels.size();
    }
}

void RegionBatches::FindBatches() {
    std::size_t pixels = 0;  // of the last batch
    for (std::size_t i = 0; i < m_rois.size(); ++i) {
        const std::size_t more = m_cleaned[i].size;
        if (m_batches.empty() || pixels + more > MOST_PIXELS || !CanJoin(m_batches.back(), i)) {
            m_batches.push_back({{i, i}, {m_first_bad_pixel[i], m_first_bad_pixel[i]}});
            pixels = 0;
        }
        m_batches.back().rois.stop = i + 1;
        m_batches.back().bad_pixels.stop = m_first_bad_pixel[i + 1];
        pixels += more;
    }
}

bool RegionBatches::CanJoin(const Batch& batch, std::size_t roi) const {
    if (roi - batch.rois.start == MOST_ROIS) return false;
    for (std::size_t other = batch.rois.start; other < batch.rois.stop; ++other) {
        if (Disturbs(other, roi)) return false;
    }
    return true;
}

bool RegionBatches::Disturbs(std::size_t repaired, std::size_t later) const {
    const Range bad_pixels{m_first_bad_pixel[repaired], m_first_bad_pixel[repaired + 1]};
    return std::ranges::any_of(bad_pixels.Of(std::span{m_bad_pixels}), [&](const BadPixel& bad_pixel) {
        return Contains(m_cleaned[later], bad_pixel);
    });
}

void RegionBatches::ComputeSlopes(gsl::span<const std::uint16_t> raw, const std::optional<Window>& window,
                                  NoiseRemovalBase& removal, Centroiding<float>& estimator,
                                  std::span<defs::Slope> slopes) const {
    VOSK_ASSERT(slopes.size() == m_rois.size());
    for (const Batch& batch : m_batches) {
        removal.RemoveNoiseOfMany(raw, window, batch.rois.Of(std::span{m_cleaned}));
        if (m_correction != nullptr) {
            m_correction->Repair(removal.GetFrame(), batch.bad_pixels.Of(std::span{m_bad_pixels}));
        }
        estimator.ComputeMany(removal.GetFrame(), batch.rois.Of(std::span{m_rois}), batch.rois.Of(slopes));
    }
}

}  // namespace vosk::image_processing
