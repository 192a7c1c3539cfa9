#include "cameras/light.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cmath>

namespace vosk::rig {
namespace {

// Figures of Noll, J. Opt. Soc. Am. 66 (1976).
TEST(Light, HasTheVariancesOfKolmogorovTurbulence) {
    EXPECT_NEAR(NollVariance(1), 0.449, 0.001);
    EXPECT_NEAR(NollVariance(2), 0.0232, 0.0001);
    EXPECT_NEAR(NollVariance(3), 0.00619, 0.00002);
}

// Variance, and the correlation over a time that a critically damped process of that knee has:
// (1 + w t) exp(-w t).
TEST(Light, KeepsVarianceAndKneeOverALongRun) {
    LightSettings settings;
    settings.d_over_r0 = 1.0;
    settings.shake_rms = 0.0;
    settings.v_over_d = 10.0;  // knees at 6 and 9 Hz
    const Light light(settings, 5, 3, Seconds{400.0});
    const std::array<double, 3> variances{0.449, 0.449, 0.0232};
    const std::array<double, 3> knees{6.0, 6.0, 9.0};
    for (std::size_t mode = 0; mode < 3; ++mode) {
        double variance = 0.0;
        double product = 0.0;
        std::array<double, 3> now{};
        std::array<double, 3> later{};
        for (int i = 0; i < 390'000; ++i) {
            light.At(Seconds{i * 1e-3}, now);
            light.At(Seconds{i * 1e-3 + 0.02}, later);
            variance += now[mode] * now[mode] / 390'000;
            product += now[mode] * later[mode] / 390'000;
        }
        const double phase = 2.0 * 3.14159265 * knees[mode] * 0.02;
        EXPECT_NEAR(variance / variances[mode], 1.0, 0.08) << mode;
        EXPECT_NEAR(product / variance, (1.0 + phase) * std::exp(-phase), 0.03) << mode;
    }
}

}  // namespace
}  // namespace vosk::rig
