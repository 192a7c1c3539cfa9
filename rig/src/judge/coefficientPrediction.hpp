#pragma once

// The coefficients of a wavefront sensor by theory alone: mean and noise of the centroid in each subaperture,
// through the control matrix. Pixels: a mode's radians times
// `pixels_per_radian`. After the run.

#include "judge/spotPrediction.hpp"

#include <vosk/defs/sizes.hpp>

#include <array>
#include <memory>
#include <vector>

namespace vosk::rig {

using ModeValues = std::array<double, defs::GPAO_CMD_SIZE>;

struct CoefficientPrediction {
    ModeValues mean{};
    ModeValues sigma{};
};

class CoefficientPredictor {
public:
    explicit CoefficientPredictor(const CameraScene& scene);

    // Those of the light itself.
    ModeValues Truth(Seconds light) const;
    CoefficientPrediction Predict(Seconds light) const;

private:
    const CameraScene& m_scene;
    SpotPredictor m_predictor;
    std::vector<float> m_matrix;  // a row of modes for x and y of each subaperture
};

}  // namespace vosk::rig
