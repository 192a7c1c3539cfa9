#include "cameras/cameraFiles.hpp"
#include "cameras/lisaReadout.hpp"
#include "portableRandom.hpp"

#include <vosk/common/fits.hpp>
#include <vosk/defs/sizes.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <yaml-cpp/yaml.h>
#include <numbers>

namespace vosk::rig {
namespace {

TEST(PortableMath, AgreesWithTheMathematicsLibrary) {
    for (const double value : {1e-300, 1e-9, 0.3, 0.7071, 0.7072, 1.0, 1.5, 2.0, 12345.678, 1e300})
        EXPECT_NEAR(PortableLog(value), std::log(value), 1e-14 * std::max(1.0, std::abs(std::log(value))))
            << value;
    for (int step = -24; step <= 24; ++step) {
        const double value = 0.37 * step;
        EXPECT_NEAR(PortableNormalShare(value), 0.5 * std::erfc(-value / std::numbers::sqrt2), 1e-12)
            << value;
    }
}

TEST(PortableRandom, GivesTheSameNumbersEverywhere) {
    PortableRandom random(7);
    // The generator's numbers are fixed by the standard; these follow from them.
    std::mt19937_64 plain(7);
    EXPECT_EQ(random.Uniform(0.0, 1.0), static_cast<double>(plain() >> 11U) * 0x1p-53);
    double sum = 0.0;
    double squares = 0.0;
    constexpr int COUNT = 100000;
    for (int i = 0; i < COUNT; ++i) {
        const double value = random.Normal();
        sum += value;
        squares += value * value;
    }
    EXPECT_LT(std::abs(sum), 5.0 * std::sqrt(COUNT));
    EXPECT_LT(std::abs(squares - COUNT), 5.0 * std::sqrt(2.0 * COUNT));
}

TEST(LisaReadout, NamesEachRawPositionOnce) {
    std::vector<int> uses(LisaReadout::RAW_WIDTH * LisaReadout::HEIGHT);
    for (const std::uint32_t position : MakeLisaDescramblingTable()) ++uses.at(position);
    for (std::size_t row = 0; row < LisaReadout::HEIGHT; ++row) {
        for (std::size_t index = 0; index < LisaReadout::RAW_WIDTH - LisaReadout::WIDTH; ++index)
            ++uses.at(LisaReadout::PrescanPosition(row, index));
    }
    EXPECT_THAT(uses, ::testing::Each(1));
}

TEST(LisaReadout, ReadsEachTapInItsOwnDirectionBehindItsPrescan) {
    EXPECT_EQ(LisaReadout::PrescanPosition(0, 0), 0U);
    EXPECT_EQ(LisaReadout::PixelPosition(0, 0), 30U * 8);         // tap 0 from its left
    EXPECT_EQ(LisaReadout::PixelPosition(0, 1), 31U * 8);         //
    EXPECT_EQ(LisaReadout::PixelPosition(0, 419), 30U * 8 + 1);   // tap 1 from its right
    EXPECT_EQ(LisaReadout::PixelPosition(0, 210), 239U * 8 + 1);  //
    EXPECT_EQ(LisaReadout::PixelPosition(1, 0), 1920U + 30 * 8);  // the next line
    EXPECT_EQ(LisaReadout::PixelPosition(815, 0), 30U * 8 + 4);   // the other half, together with row 0
    EXPECT_EQ(LisaReadout::PixelPosition(408, 839), 407U * 1920 + 30 * 8 + 7);
}

TEST(CameraSensor, IsAFunctionOfItsSeed) {
    const CameraSensor sensor = MakeSensor(AliceModel(), 3);
    EXPECT_EQ(sensor.bias, MakeSensor(AliceModel(), 3).bias);
    EXPECT_EQ(sensor.flat, MakeSensor(AliceModel(), 3).flat);
    EXPECT_NE(sensor.bias, MakeSensor(AliceModel(), 4).bias);
}

TEST(CameraSensor, KeepsBadPixelsApartAndOutOfTheDark) {
    const CameraSensor sensor = MakeSensor(LisaModel(), 1);
    const CameraModel& model = sensor.model;
    ASSERT_EQ(sensor.bad_pixels.size(), model.bad_pixels);
    for (const BadPixel& pixel : sensor.bad_pixels) {
        EXPECT_GT(pixel.x, model.dark_columns);
        EXPECT_LT(pixel.x, model.width - model.dark_columns - 1);
        EXPECT_GE(pixel.y, 1U);
        EXPECT_LE(pixel.y, model.height - 2);
        const auto is_near = [&pixel](const BadPixel& other) {
            return pixel.x + 2 >= other.x && other.x + 2 >= pixel.x && pixel.y + 2 >= other.y &&
                   other.y + 2 >= pixel.y;
        };
        EXPECT_EQ(std::count_if(sensor.bad_pixels.begin(), sensor.bad_pixels.end(), is_near), 1);
    }
    EXPECT_THAT(sensor.flat, ::testing::Each(::testing::Gt(0.5F)));
    EXPECT_THROW(ModelNamed("lucy"), std::invalid_argument);
}

TEST(WfsGrid, LiesClearOfTheDarkColumnsAndHoldsItsReferencePoints) {
    for (const std::size_t count : {std::size_t{1}, std::size_t{740}, WfsGrid::MOST}) {
        const WfsGrid grid = MakeWfsGrid(count, 1);
        ASSERT_EQ(grid.subapertures.size(), count);
        for (const Subaperture& sub : grid.subapertures) {
            EXPECT_GE(sub.x_start, 20);
            EXPECT_LE(sub.x_stop, 820);
            EXPECT_LE(sub.y_stop, 816);
            EXPECT_EQ(sub.x_stop - sub.x_start, 24);
            EXPECT_EQ(sub.y_stop - sub.y_start, 24);
            EXPECT_NEAR(sub.ref_x, sub.x_start + 11.5, 0.3 + 1e-4);
            EXPECT_NEAR(sub.ref_y, sub.y_start + 11.5, 0.3 + 1e-4);
        }
    }
    EXPECT_THROW(MakeWfsGrid(0, 1), std::invalid_argument);
    EXPECT_THROW(MakeWfsGrid(WfsGrid::MOST + 1, 1), std::invalid_argument);
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

TEST(CameraFiles, StandInTheFormsThatTheHostReads) {
    // What the others lack is not looked at here.
    CameraSet cameras{MakeSensor(LisaModel(), 1), MakeSensor(AliceModel(), 1), MakeSensor(AliceModel(), 1),
                      MakeWfsGrid(100, 1)};
    const test::TempDir temporary;
    const std::filesystem::path directory = temporary.Path() / "camera files: all";
    WriteCameraFiles(directory, cameras);
    using Axes = std::vector<std::size_t>;
    const auto form = [](const std::filesystem::path& file) {
        return common::Fits::ReadImgParams(common::Fits::FitsFile(file.string()));
    };
    EXPECT_EQ(form(directory / "data/scrambling/lisa_descrambling_vector.fits"), std::pair(Axes{685440}, 32));
    EXPECT_EQ(form(directory / "data/lisa/dark.fits"), std::pair(Axes({840, 816}), -32));
    EXPECT_EQ(form(directory / "data/lisa/flat.fits"), std::pair(Axes({840, 816}), -32));
    EXPECT_EQ(form(directory / "data/alice/dark.fits"), std::pair(Axes({240, 240}), -32));
    EXPECT_EQ(form(directory / "data/lisa/rois.fits"), std::pair(Axes({4, 100}), 16));
    EXPECT_EQ(form(directory / "data/lisa/reference_points.fits"), std::pair(Axes({2, 100}), -32));
    EXPECT_EQ(form(directory / "data/lisa/control_matrix.fits"), std::pair(Axes({200, 52}), -32));
    const YAML::Node document = YAML::LoadFile((directory / "cameras.yaml").string());
    EXPECT_EQ(document["lisa"]["rois_path"].as<std::string>(), (directory / "data/lisa/rois.fits").string());
    EXPECT_EQ(document["lisa"]["bad_pixel_correction"]["bad_pixels"].size(), cameras.lisa.bad_pixels.size());
}

}  // namespace
}  // namespace vosk::rig
