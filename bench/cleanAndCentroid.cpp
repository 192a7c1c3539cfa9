// What a worker of a LISA camera does with its regions, cleaning and centroids together: a region after the
// other, and in chunks whose centroids are taken in one call while their pixels are still in the cache. Both
// against the plain loops and against moving the same bytes.

#include "frames.hpp"

#include <fmt/format.h>
#include <vosk/reference/cleaning.hpp>

#include <utility>

namespace vosk::bench {

namespace {

constexpr std::size_t CHUNK = 16;

std::vector<Row> BenchWorker(const LisaFrame& frame, const Estimator& estimator) {
    const auto removal = frame.MakeRemoval();
    reference::LisaCleaning plain{frame.bias, frame.flat, frame.table};
    const auto rois = Regions(24);
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
                                  for (std::size_t start = 0; start < rois.size(); start += CHUNK) {
                                      const auto chunk = std::span{rois}.subspan(start, CHUNK);
                                      for (const auto& roi : chunk) removal->RemoveNoise(frame.raw, {}, roi);
                                      ours.ComputeMany(removal->GetFrame(), chunk,
                                                       std::span{slopes}.subspan(start, CHUNK));
                                  }
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

    const auto what = fmt::format("clean and {}, {}", estimator.name, frame.name);
    const auto many = fmt::format("{}, {} at a time", what, CHUNK);
    return {{what + ", one by one", estimator.plain_name, "ns/pixel", ns[0], ns[2]},
            {many, estimator.plain_name, "ns/pixel", ns[1], ns[2]},
            {many, "moving the same bytes", "ns/pixel", ns[1], ns[3]}};
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
