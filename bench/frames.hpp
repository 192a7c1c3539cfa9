#pragma once

// What the benchmarks of camera frames share: a LISA camera's frame with its calibration data, regions of it,
// the estimators beside their plain forms, and the streams that move the same bytes.

#include "bench.hpp"

#include <vosk/defs/alignedFrame.hpp>
#include <vosk/defs/valueTypes.hpp>
#include <vosk/image_processing/centroiding.hpp>
#include <vosk/image_processing/noiseRemoval.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace vosk::bench {

using Geometry = image_processing::LisaGeometry;

// What of a camera has another seed is another frame, as a bias and a flat are.
defs::AlignedFrame<float> RandomFrame(std::uint32_t seed, std::size_t size, float low, float high);
// Of a cleaned LISA frame: noise around zero and, in the middle of each of Regions(size), a spot. The columns
// without light see neither.
defs::AlignedFrame<float> SpotFrame(std::size_t size);

// How a camera delivers its pixels.
struct Readout {
    std::string name;
    std::function<std::uint32_t(std::size_t)> position;  // in the raw frame, of a pixel of the image
    bool is_table_read;                                  // to clean it; not if its positions follow a rule
};
// Each row of the image as it stands in the raw frame, without the columns beside it.
Readout NeighbourReadout();
// Four taps of 210 columns in each half of the sensor, clocked together and therefore taking turns; every
// second one is read from right to left, the upper half from its last row.
Readout TapReadout();
Readout RandomReadout();

// The bytes that work on pixels cannot but move. Of cleaning: the counts, both calibration frames and, where
// it has to be read, the table; the cleaned pixels. Of centroids after cleaning nothing more, as they find
// their pixels in the cache; of centroids alone, the pixels. All of it row by row of the regions, in one pass
// with the vectors of this machine.
struct CleaningStream {
    const std::uint16_t* raw;
    std::size_t raw_stride;
    const float* bias;
    const float* flat;
    const std::uint32_t* table;  // null if it need not be read
    std::size_t stride;          // of all but the raw frame
    std::uint32_t* cleaned;
};

// A raw frame that is cleaned to SpotFrame(24), nearly.
struct LisaFrame {
    explicit LisaFrame(const Readout& readout);
    std::unique_ptr<image_processing::LisaNoiseRemoval> MakeRemoval() const;
    // Of what cleaning it moves; `moved` is as large as the image.
    CleaningStream Stream(defs::AlignedFrame<std::uint32_t>& moved) const;

    std::string name;
    bool is_table_read;
    defs::AlignedFrame<float> bias;
    defs::AlignedFrame<float> flat;
    defs::AlignedFrame<std::uint32_t> table;
    defs::AlignedFrame<std::uint16_t> raw;
};

image_processing::Roi WholeFrame(std::size_t width, std::size_t height);
// Regions of a LISA frame, side by side, in as many rows as columns.
std::vector<image_processing::Roi> Regions(std::uint16_t size, std::size_t columns = 32);
std::size_t PixelsOf(std::span<const image_processing::Roi> rois);

// An estimator and its plain form.
struct Estimator {
    std::string name;
    std::string plain_name;
    std::unique_ptr<image_processing::Centroiding<float>> ours;
    defs::Slope (*plain)(std::span<const float> frame, const image_processing::Roi& roi);
    std::size_t repeats;
};
std::vector<Estimator> Estimators();

void StreamCleaning(const CleaningStream& stream, std::span<const image_processing::Roi> rois);
// Widths are multiples of 8.
std::uint32_t StreamPixels(const float* pixels, std::size_t stride,
                           std::span<const image_processing::Roi> rois);

// Runs the works by turns, so that a noisy moment meets all of them: ns a pixel, undisturbed.
std::vector<double> NsAPixel(const std::vector<std::function<void()>>& works, std::size_t repeats,
                             std::size_t pixels);

}  // namespace vosk::bench
