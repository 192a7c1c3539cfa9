// The rotation between M5 and the sky.

#include <vosk/common/math/m5Geometry.hpp>

#include <vosk/test/support.hpp>

#include <numbers>

namespace vosk::common::math {
namespace {

using std::numbers::pi;

constexpr double SITE = -0.4291659910898936;

void ExpectPair(const defs::FloatVectorTT& pair, double tip, double tilt) {
    EXPECT_NEAR(pair.tip, tip, 1e-6);
    EXPECT_NEAR(pair.tilt, tilt, 1e-6);
}

TEST(M5Geometry, GoesThereAndBackAllOverTheSky) {
    for (const double latitude : {SITE, 0.0, 1.2}) {
        for (int i = 0; i < 25 * 13; ++i) {
            const int row = i / 25;
            const double h = (i % 25 - 12) * pi / 12.0;
            const double d = (row - 6) * pi / 12.0;
            SCOPED_TRACE(testing::Message() << latitude << ' ' << h << ' ' << d);
            const auto m5 = applySky2M5(1.5, -2.0, h, d, latitude, 2.0);
            ExpectPair(applyM52Sky(m5.tip, m5.tilt, h, d, latitude, 2.0), 1.5, -2.0);
            EXPECT_NEAR(std::hypot(m5.tip, m5.tilt), 1.25, 1e-6);
        }
    }
}

TEST(M5Geometry, TurnsByTheAngleBetweenPoleAndZenith) {
    ExpectPair(applyM52Sky(1.5, -2.0, 0.0, SITE, SITE, 1.0), 1.5, -2.0);        // the zenith
    ExpectPair(applyM52Sky(1.5, -2.0, 0.0, SITE - 0.1, SITE, 1.0), 1.5, -2.0);  // towards the southern pole
    ExpectPair(applyM52Sky(1.5, -2.0, 0.0, 0.0, SITE, 1.0), -1.5, 2.0);         // north of the zenith
    ExpectPair(applyM52Sky(1.5, -2.0, pi / 2, -pi / 2, SITE, 1.0), 2.0, 1.5);   // the pole, six hours on
    ExpectPair(applyM52Sky(1.0, 0.0, pi / 2, 0.0, SITE, 1.0), std::sin(SITE), std::cos(SITE));  // setting
}

}  // namespace
}  // namespace vosk::common::math
