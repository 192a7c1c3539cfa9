#pragma once

// What one camera of the scenario looks at: its sensor, its regions, and where the light puts a spot in each.
// The sender renders frames from it, and the judge takes the truth from it. Constant after construction.

#include "cameras/cameraSensor.hpp"
#include "cameras/frameRenderer.hpp"
#include "cameras/lightSource.hpp"
#include "cameras/wfsGrid.hpp"

#include <memory>
#include <span>
#include <vector>

namespace vosk::rig {

// A region of the image, its far edges excluded, and the point from which its spot is measured.
struct SpotRegion {
    std::size_t x_start;
    std::size_t x_stop;
    std::size_t y_start;
    std::size_t y_stop;
    double ref_x;
    double ref_y;
};

SpotRegion RegionAround(const std::array<std::uint32_t, 2>& reference,
                        const std::array<std::uint32_t, 2>& box);

class CameraScene {
public:
    CameraScene(const CameraSettings& settings, std::shared_ptr<const CameraSensor> sensor,
                std::shared_ptr<const LightSource> light, std::uint64_t seed);

    const CameraSettings& Settings() const { return m_settings; }
    const std::shared_ptr<const CameraSensor>& Sensor() const { return m_sensor; }
    bool IsWfs() const { return m_settings.kind == CameraKind::LisaWfs; }
    const WfsGrid& Grid() const { return m_grid; }  // of a wavefront sensor
    const std::vector<SpotRegion>& Regions() const { return m_regions; }

    // Which light frame `number` shows, exposed at that time after the start, and which number its noise
    // comes from. With a ring both are those of a frame of the ring.
    struct View {
        Seconds light;
        std::uint64_t noise;
    };
    View ViewOf(std::uint64_t number, Seconds exposed) const;
    // Of the light, radians rms, from tip on.
    std::vector<double> CoefficientsAt(Seconds light) const;
    // One spot a region.
    void SpotsAt(Seconds light, std::vector<Spot>& spots) const;

private:
    const CameraSettings m_settings;
    const std::shared_ptr<const CameraSensor> m_sensor;
    const std::shared_ptr<const LightSource> m_light;
    WfsGrid m_grid;
    std::vector<SpotRegion> m_regions;
    std::vector<double> m_response;  // pixels a radian: x and y of each region, a row of modes each
};

}  // namespace vosk::rig
