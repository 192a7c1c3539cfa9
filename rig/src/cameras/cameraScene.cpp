#include "cameras/cameraScene.hpp"

#include <vosk/defs/sizes.hpp>

#include <array>
#include <numeric>
#include <utility>

namespace vosk::rig {

SpotRegion RegionAround(const std::array<std::uint32_t, 2>& reference,
                        const std::array<std::uint32_t, 2>& box) {
    return {reference[0] - box[0] / 2, reference[0] + box[0] / 2,         reference[1] - box[1] / 2,
            reference[1] + box[1] / 2, static_cast<double>(reference[0]), static_cast<double>(reference[1])};
}

CameraScene::CameraScene(const CameraSettings& settings, std::shared_ptr<const CameraSensor> sensor,
                         std::shared_ptr<const LightSource> light, std::uint64_t seed)
    : m_settings(settings), m_sensor(std::move(sensor)), m_light(std::move(light)) {
    if (IsWfs()) {
        m_grid = MakeWfsGrid(settings.subapertures, seed);
        for (const Subaperture& sub : m_grid.subapertures)
            m_regions.push_back({sub.x_start, sub.x_stop, sub.y_start, sub.y_stop, sub.ref_x, sub.ref_y});
        m_response = MakeSlopeResponse(m_grid, m_light->Modes());
    } else {
        m_regions.push_back(RegionAround(settings.reference, settings.box));
        m_response.assign(2 * std::size_t{m_light->Modes()}, 0.0);
        m_response[0] = 1.0;
        m_response[m_light->Modes() + 1] = 1.0;
    }
    for (double& value : m_response) value *= settings.pixels_per_radian;
}

CameraScene::View CameraScene::ViewOf(std::uint64_t number, Seconds exposed) const {
    if (m_settings.ring == 0) return {exposed, number};
    const std::uint64_t place = number % m_settings.ring;
    return {static_cast<double>(place) * Seconds{m_settings.Period()}, place};
}

std::vector<double> CameraScene::CoefficientsAt(Seconds light) const {
    std::vector<double> coefficients(m_light->Modes());
    m_light->At(light, coefficients);
    return coefficients;
}

void CameraScene::SpotsAt(Seconds light, std::vector<Spot>& spots) const {
    std::array<double, defs::GPAO_CMD_SIZE> coefficients{};
    const std::span modes = std::span(coefficients).first(m_light->Modes());
    m_light->At(light, modes);
    spots.resize(m_regions.size());
    const double* row = m_response.data();
    const auto next = [&] {
        const double sum = std::inner_product(modes.begin(), modes.end(), row, 0.0);
        row += modes.size();
        return sum;
    };
    for (std::size_t i = 0; i < spots.size(); ++i) {
        const double x = next();
        const double y = next();
        spots[i] = {m_regions[i].ref_x + x, m_regions[i].ref_y + y, m_sensor->model.spot_flux};
    }
}

}  // namespace vosk::rig
