#pragma once

// How the sky stands over M5, which rides on the altitude structure: by the angle at the star between the
// directions to the zenith and to the pole. Worked out from the three directions.

namespace vosk::rig {

inline constexpr double SITE_LATITUDE = -0.4291659910898936;  // radians

struct TipTilt {
    double tip = 0.0;
    double tilt = 0.0;
};

struct Pointing {
    double hour_angle = 0.0;  // radians, as is the other
    double declination = 0.0;
};

// Where the telescope looks, as PFS tells it: it follows a star.
Pointing PointingAt(double seconds);

TipTilt SkyToM5(TipTilt sky, Pointing pointing);
TipTilt M5ToSky(TipTilt m5, Pointing pointing);

}  // namespace vosk::rig
