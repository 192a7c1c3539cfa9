#include <vosk/common/math/m5Geometry.hpp>

#include <cmath>

namespace vosk::common::math {

namespace {

defs::FloatVectorTT Rotate(double tip, double tilt, double angle, double scale) noexcept {
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    return {static_cast<float>(scale * (c * tip - s * tilt)),
            static_cast<float>(scale * (s * tip + c * tilt))};
}

}  // namespace

double ParallacticAngle(double hour_angle, double declination, double latitude) noexcept {
    const double opposite = std::cos(latitude) * std::sin(hour_angle);
    const double adjacent = std::sin(latitude) * std::cos(declination) -
                            std::cos(latitude) * std::sin(declination) * std::cos(hour_angle);
    return std::atan2(opposite, adjacent);
}

defs::FloatVectorTT applyM52Sky(double tip, double tilt, double hour_angle, double declination,
                                double latitude, double scale) noexcept {
    return Rotate(tip, tilt, ParallacticAngle(hour_angle, declination, latitude), scale);
}

defs::FloatVectorTT applySky2M5(double tip, double tilt, double hour_angle, double declination,
                                double latitude, double scale) noexcept {
    return Rotate(tip, tilt, -ParallacticAngle(hour_angle, declination, latitude), 1.0 / scale);
}

}  // namespace vosk::common::math
