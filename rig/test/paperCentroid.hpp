#pragma once

// What an estimator should find in the cleaned pixels of a region, worked out on paper from the spot, the
// camera's noise and its flat, without rendering anything: expectation and rms of flux and position.
//
// Pixels are independent normals (photon noise, read noise, rounding). A dynamic bias measured in
// `bias_pixels` pixels adds an error common to a group of rows. A pixel of mean m and rms s that counts from
// a threshold t on contributes, with z = (t - m) / s and the normal density d and upper tail Q at z,
//     mean m Q + s d,   mean square (m^2 + s^2) Q + s (m + t) d,   slope with m: Q + t d / s.
// A ratio of sums has, to first order, the variance of its numerator about the expected ratio.

#include "cameras/cameraSensor.hpp"
#include "cameras/frameRenderer.hpp"

#include <vosk/image_processing/roi.hpp>

#include <array>
#include <cstddef>
#include <vector>

namespace vosk::rig {

struct Quantity {
    double value = 0.0;
    double rms = 0.0;
    double common_share = 0.0;  // of its variance: due to the dynamic bias, which other regions share
};

struct Expected {
    Quantity flux;
    Quantity x;  // in pixels of the frame
    Quantity y;
};

class PaperCentroid {
public:
    // `bias_pixels` is 0 for a camera without dynamic bias.
    PaperCentroid(const CameraSensor& sensor, const image_processing::Roi& roi, const Spot& spot,
                  std::size_t bias_pixels);

    Expected OfAll() const { return From(-1e9); }
    Expected From(double threshold) const;

private:
    // A pixel's value enters flux, first moment in x and first moment in y by 1, its column and its row.
    struct Pixel {
        double mean;
        double rms;
        double common;      // how an error of the dynamic bias shows in it
        std::size_t group;  // of rows that share that error
        std::array<double, 3> weights;
    };
    struct Sums {
        std::array<double, 3> mean{};
        // Of flux, and of the moments about the expected position.
        std::array<double, 3> variance{};
        std::array<double, 3> common_variance{};  // within the former
    };

    Sums SumFrom(double threshold) const;

    image_processing::Roi m_roi;
    double m_common_variance;
    std::vector<Pixel> m_pixels;
};

}  // namespace vosk::rig
