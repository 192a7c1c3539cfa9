// From raw frame to centroids, as a worker of a camera's pipeline does it: ROI by ROI, and in batches whose
// centroids are taken in one call while their pixels are still in the cache. Both against the plain loops and
// against moving the same bytes; small ROIs also against large ones.

#include "frames.hpp"

#include <fmt/format.h>
#include <vosk/image_processing/regionBatches.hpp>
#include <vosk/reference/cleaning.hpp>

#include <utility>

namespace vosk::bench {

namespace {

// ns a pixel.
struct Times {
    double one_by_one;
    double batches;
    double plain;
    double moving;
};

Times TimeWorker(const LisaFrame& frame, const Estimator& estimator, std::uint16_t size) {
    const auto removal = frame.MakeRemoval();
    reference::LisaCleaning plain{frame.bias, frame.flat, frame.table};
    const auto rois = Regions(size);
    const image_processing::RegionBatches batches{rois, nullptr};
    std::vector<defs::Slope> slopes(rois.size());
    defs::AlignedFrame<std::uint32_t> moved(frame.table.size());
    const CleaningStream stream = frame.Stream(moved);
    auto& ours = *estimator.ours;
    const auto ns = NsAPixel({[&] {
                                  removal->InvalidateCache();
                                  for (std::size_t i = 0; i < rois.size(); ++i) {
                                      removal->RemoveNoise(frame.raw, {}, rois[i]);
                                      ours.Compute(removal->GetFrame(), rois[i]);
                                      slopes[i] = {ours.flux, ours.x, ours.y};
                                  }
                              },
                              [&] {
                                  removal->InvalidateCache();
                                  batches.ComputeSlopes(frame.raw, {}, *removal, ours, slopes);
                              },
                              [&] {
                                  plain.NewFrame(frame.raw);
                                  for (std::size_t i = 0; i < rois.size(); ++i) {
                                      plain.Clean(rois[i]);
                                      slopes[i] = estimator.plain(plain.Frame(), rois[i]);
                                  }
                              },
                              [&] { StreamCleaning(stream, rois); }},
                             estimator.repeats, PixelsOf(rois));
    return {ns[0], ns[1], ns[2], ns[3]};
}

std::vector<Row> BenchWorker(const LisaFrame& frame, const Estimator& estimator) {
    const auto large = TimeWorker(frame, estimator, 24);
    const auto small = TimeWorker(frame, estimator, 8);
    const auto what = fmt::format("clean and {}, {}", estimator.name, frame.name);
    const auto many = what + ", in batches";
    return {{what + ", one by one", estimator.plain_name, "ns/pixel", large.one_by_one, large.plain},
            {many, estimator.plain_name, "ns/pixel", large.batches, large.plain},
            {many, "moving the same bytes", "ns/pixel", large.batches, large.moving},
            {many + ", 8 x 8", "moving the same bytes", "ns/pixel", small.batches, small.moving},
            {many + ", 8 x 8", "24 x 24", "ns/pixel", small.batches, large.batches}};
}

}  // namespace

std::vector<Row> BenchCleanAndCentroid() {
    std::vector<Row> rows;
    for (const auto& readout : {NeighbourReadout(), TapReadout()}) {
        const LisaFrame frame{readout};
        for (const Estimator& estimator : Estimators()) {
            for (Row& row : BenchWorker(frame, estimator)) rows.push_back(std::move(row));
        }
    }
    return rows;
}

}  // namespace vosk::bench
