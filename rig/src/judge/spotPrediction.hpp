#pragma once

// The centroid of a spot by theory alone: mean and noise of a centre of gravity over the pixels that reach a
// threshold. A pixel of mean m and noise s is taken if its value reaches
// the threshold, so that its contribution has the moments of a normal distribution cut off there. Photon,
// read and rounding noise count. The threshold's cut and the sky move the estimate, and the mean has both. A
// bad pixel counts as the mean of its neighbours, by which it is repaired. That it shares their noise is left
// out, and its region is marked.

#include "cameras/cameraScene.hpp"
#include "cameras/spotProfile.hpp"

#include <limits>
#include <span>
#include <vector>

namespace vosk::rig {

struct SpotPrediction {
    double flux = 0.0;
    double x = 0.0;  // from the reference point, pixels
    double y = 0.0;
    double sigma_x = 0.0;
    double sigma_y = 0.0;
    bool has_bad_pixel = false;
};

class SpotPredictor {
public:
    static constexpr double NO_THRESHOLD = -std::numeric_limits<double>::infinity();

    explicit SpotPredictor(const CameraSensor& sensor);

    // `spots` are all of the frame: one that has wandered far leaves light in the next region. Pixels outside
    // `window` are 0 without noise; a window of no width is the whole sensor.
    SpotPrediction Predict(std::span<const Spot> spots, const SpotRegion& region, const PixelWindow& window,
                           double threshold) const;

private:
    const CameraSensor& m_sensor;
    SpotProfile m_profile;
    std::vector<char> m_is_bad;  // of the image
};

}  // namespace vosk::rig
