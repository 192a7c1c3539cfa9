#include "cameras/lisaReadout.hpp"
#include "cameras/wfsGrid.hpp"

#include <vosk/defs/sizes.hpp>
#include <vosk/test/support.hpp>

namespace vosk::rig {
namespace {

TEST(LisaReadout, ReadsEachTapInItsOwnDirectionBehindItsPrescan) {
    EXPECT_EQ(LisaReadout::PrescanPosition(0, 0), 0U);
    EXPECT_EQ(LisaReadout::PixelPosition(0, 0), 30U * 8);  // tap 0 from its left
    EXPECT_EQ(LisaReadout::PixelPosition(0, 1), 31U * 8);
    EXPECT_EQ(LisaReadout::PixelPosition(0, 419), 30U * 8 + 1);  // tap 1 from its right
    EXPECT_EQ(LisaReadout::PixelPosition(0, 210), 239U * 8 + 1);
    EXPECT_EQ(LisaReadout::PixelPosition(1, 0), 1920U + 30 * 8);  // the next line
    EXPECT_EQ(LisaReadout::PixelPosition(815, 0), 30U * 8 + 4);   // the other half, together with row 0
    EXPECT_EQ(LisaReadout::PixelPosition(408, 839), 407U * 1920 + 30 * 8 + 7);
}

TEST(ControlMatrix, FindsEachModeAloneAndTipInPixels) {
    constexpr std::uint32_t MODES = defs::GPAO_CMD_SIZE;
    const WfsGrid grid = MakeWfsGrid(740, 1);
    const std::vector<double> response = MakeSlopeResponse(grid, MODES);
    const std::vector<float> control = MakeControlMatrix(grid, MODES);
    const auto apply = [&](auto slope, std::size_t mode) {
        double sum = 0.0;
        for (std::size_t i = 0; i < 2 * grid.subapertures.size(); ++i)
            sum += control[i * MODES + mode] * slope(i);
        return sum;
    };
    for (std::size_t given = 0; given < MODES; ++given) {
        for (std::size_t found = 0; found < MODES; ++found)
            EXPECT_NEAR(apply([&](std::size_t i) { return response[i * MODES + given]; }, found),
                        given == found ? 1.0 : 0.0, 1e-4);
    }
    // All spots by one pixel in x, by two in y.
    const auto shift = [](std::size_t i) { return i % 2 == 0 ? 1.0 : 2.0; };
    EXPECT_NEAR(apply(shift, 0), 1.0, 1e-5);
    EXPECT_NEAR(apply(shift, 1), 2.0, 1e-5);
    EXPECT_NEAR(apply(shift, 2), 0.0, 1e-5);
    EXPECT_NO_THROW(MakeControlMatrix(MakeWfsGrid(WfsGrid::FEWEST, 1), MODES));
    EXPECT_THROW(MakeControlMatrix(MakeWfsGrid(WfsGrid::FEWEST - 1, 1), MODES), std::invalid_argument);
}

}  // namespace
}  // namespace vosk::rig
