#include "judge/coefficientPrediction.hpp"

#include <cmath>

namespace vosk::rig {

CoefficientPredictor::CoefficientPredictor(const CameraScene& scene)
    : m_scene(scene),
      m_predictor(*scene.Sensor()),
      m_matrix(MakeControlMatrix(scene.Grid(), defs::GPAO_CMD_SIZE)) {}

ModeValues CoefficientPredictor::Truth(Seconds light) const {
    const std::vector<double> radians = m_scene.CoefficientsAt(light);
    ModeValues pixels{};
    for (std::size_t mode = 0; mode < pixels.size(); ++mode)
        pixels[mode] = m_scene.Settings().pixels_per_radian * radians[mode];
    return pixels;
}

CoefficientPrediction CoefficientPredictor::Predict(Seconds light) const {
    std::vector<Spot> spots;
    m_scene.SpotsAt(light, spots);
    const double threshold = SpotThreshold(m_scene.Sensor()->model);
    CoefficientPrediction result;
    const float* row = m_matrix.data();
    const auto add = [&](double slope, double sigma) {
        for (std::size_t mode = 0; mode < result.mean.size(); ++mode) {
            const double weight = double{row[mode]};
            result.mean[mode] += weight * slope;
            result.sigma[mode] += weight * weight * sigma * sigma;
        }
        row += result.mean.size();
    };
    for (const SpotRegion& region : m_scene.Regions()) {
        const SpotPrediction spot = m_predictor.Predict(spots, region, {}, threshold);
        add(spot.x, spot.sigma_x);
        add(spot.y, spot.sigma_y);
    }
    for (double& sigma : result.sigma) sigma = std::sqrt(sigma);
    return result;
}

}  // namespace vosk::rig
