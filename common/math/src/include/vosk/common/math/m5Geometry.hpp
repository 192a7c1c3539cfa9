#pragma once

// The rotation between the tip/tilt of M5 and that of the sky. M5 stands on the altitude structure, so the
// sky turns over it by the parallactic angle q of the pointing (Smart, Textbook on Spherical Astronomy, ch.
// II):
//
//     tan q = cos(latitude) sin(h) / (sin(latitude) cos(d) - cos(latitude) sin(d) cos(h))
//
// with the hour angle h and the declination d. Where both terms are 0, at the zenith, q is 0. Any thread.

#include <vosk/defs/valueTypes.hpp>

namespace vosk::common::math {

// All angles are in radians; `scale` is the tilt of the sky for one unit of M5, not 0.
double ParallacticAngle(double hour_angle, double declination, double latitude) noexcept;

// The tip/tilt of M5, in sky coordinates: turned by q and scaled.
defs::FloatVectorTT applyM52Sky(double tip, double tilt, double hour_angle, double declination,
                                double latitude, double scale) noexcept;

// The tip/tilt of the sky, in M5 coordinates: the inverse.
defs::FloatVectorTT applySky2M5(double tip, double tilt, double hour_angle, double declination,
                                double latitude, double scale) noexcept;

}  // namespace vosk::common::math
