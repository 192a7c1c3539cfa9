// Centroids of 1024 regions of a LISA frame: one call for all and one call a region, against the plain loop
// (for NBR, a full sort) and against reading the same bytes.

#include "frames.hpp"

#include <fmt/format.h>

#include <utility>

namespace vosk::bench {

namespace {

std::vector<Row> BenchEstimator(const Estimator& estimator, std::uint16_t size) {
    const auto frame = SpotFrame(size);
    const auto rois = Regions(size);
    std::vector<defs::Slope> slopes(rois.size());
    volatile std::uint32_t sink = 0;
    auto& ours = *estimator.ours;
    const auto ns = NsAPixel({[&] { ours.ComputeMany(frame, rois, slopes); },
                              [&] {
                                  for (std::size_t i = 0; i < rois.size(); ++i) {
                                      ours.Compute(frame, rois[i]);
                                      slopes[i] = {ours.flux, ours.x, ours.y};
                                  }
                              },
                              [&] {
                                  for (std::size_t i = 0; i < rois.size(); ++i)
                                      slopes[i] = estimator.plain(frame, rois[i]);
                              },
                              [&] { sink = StreamPixels(frame.data(), Geometry::WIDTH, rois); }},
                             estimator.repeats, PixelsOf(rois));

    const auto what = fmt::format("{}, 1024 ROIs of {} x {}", estimator.name, size, size);
    return {{what + ", in one call", estimator.plain_name, "ns/pixel", ns[0], ns[2]},
            {what + ", one by one", estimator.plain_name, "ns/pixel", ns[1], ns[2]},
            {what + ", in one call", "reading the same bytes", "ns/pixel", ns[0], ns[3]}};
}

}  // namespace

std::vector<Row> BenchCentroiding() {
    std::vector<Row> rows;
    for (const Estimator& estimator : Estimators()) {
        for (const std::uint16_t size : {std::uint16_t{24}, std::uint16_t{8}}) {
            for (Row& row : BenchEstimator(estimator, size)) rows.push_back(std::move(row));
        }
    }
    return rows;
}

}  // namespace vosk::bench
