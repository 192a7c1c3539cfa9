#include "skyRotation.hpp"

#include <array>
#include <cmath>

namespace vosk::rig {
namespace {

// Towards the meridian on the equator, east, north.
using Direction = std::array<double, 3>;

double Dot(const Direction& a, const Direction& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

Direction Cross(const Direction& a, const Direction& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

// The part of `direction` at a right angle to `axis`.
Direction Across(const Direction& direction, const Direction& axis) {
    const double along = Dot(direction, axis);
    return {direction[0] - along * axis[0], direction[1] - along * axis[1], direction[2] - along * axis[2]};
}

// Positive west of the meridian, where hour angles are.
double AngleAtStar(Pointing pointing) {
    const double across = std::cos(pointing.declination);
    const Direction star{across * std::cos(pointing.hour_angle), -across * std::sin(pointing.hour_angle),
                         std::sin(pointing.declination)};
    const Direction zenith{std::cos(SITE_LATITUDE), 0.0, std::sin(SITE_LATITUDE)};
    const Direction to_pole = Across({0.0, 0.0, 1.0}, star);
    const Direction to_zenith = Across(zenith, star);
    return std::atan2(Dot(star, Cross(to_zenith, to_pole)), Dot(to_pole, to_zenith));
}

TipTilt Turn(TipTilt tt, double angle) {
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    return {c * tt.tip - s * tt.tilt, s * tt.tip + c * tt.tilt};
}

}  // namespace

Pointing PointingAt(double seconds) {
    return {-1.2 + 0.03 * seconds, -0.46};
}

TipTilt SkyToM5(TipTilt sky, Pointing pointing) {
    return Turn(sky, -AngleAtStar(pointing));
}

TipTilt M5ToSky(TipTilt m5, Pointing pointing) {
    return Turn(m5, AngleAtStar(pointing));
}

}  // namespace vosk::rig
