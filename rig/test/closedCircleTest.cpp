// Spots of known place and flux into the renderer, calibration files and raw frame into the image blocks,
// centroids out: as far from where a plain estimator has them in the light alone as noise allows.

#include "cameras/cameraFiles.hpp"
#include "cameras/frameRenderer.hpp"
#include "portableRandom.hpp"

#include <vosk/common/fits.hpp>
#include <vosk/image_processing/centroiding.hpp>
#include <vosk/image_processing/noiseRemoval.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <array>
#include <functional>
#include <map>
#include <numbers>
#include <numeric>

namespace vosk::rig {
namespace {

using namespace image_processing;
namespace fs = std::filesystem;

constexpr std::uint64_t SEED = 20;

// A camera of the rig, and the blocks that know it from its files alone.
struct Bench {
    std::shared_ptr<const CameraSensor> sensor;
    std::unique_ptr<NoiseRemovalBase> cleaning;
    std::vector<Roi> rois;
    double bias_pixels = 1e9;  // that the dynamic bias of a group of rows is measured in
    std::optional<ReadoutWindow> window;
    std::uint64_t frames = 1;
};

std::uint16_t Cut(std::size_t value) {
    return static_cast<std::uint16_t>(value);
}

Roi CenteredRoi(std::size_t x, std::size_t y, std::size_t size, const CameraModel& model) {
    const double middle = static_cast<double>(size - 1) / 2.0;
    const double ref_x = static_cast<double>(x) + middle;
    const double ref_y = static_cast<double>(y) + middle;
    return Roi(Cut(x), Cut(x + size), Cut(y), Cut(y + size), Cut(model.width), Cut(model.height), ref_x,
               ref_y);
}

template <class Cleaning, class... Paths>
Bench MakeBench(const fs::path& directory, const CameraModel& model, Paths... paths) {
    Bench bench;
    bench.sensor = std::make_shared<CameraSensor>(MakeSensor(model, SEED));
    WriteSensorFiles(directory, *bench.sensor);
    const fs::path data = directory / "data" / model.name;
    bench.cleaning =
        std::make_unique<Cleaning>((data / "dark.fits").string(), (data / "flat.fits").string(), paths...);
    return bench;
}

Bench LisaBench() {
    const test::TempDir directory;
    auto bench = MakeBench<LisaNoiseRemoval>(directory.Path(), LisaModel(),
                                             directory / "data/scrambling/lisa_descrambling_vector.fits");
    bench.bias_pixels = 160;
    WriteGridFiles(directory.Path(), MakeWfsGrid(WfsGrid::MOST, SEED));
    const auto rois = common::Fits::ReadImg<std::uint16_t>(
        common::Fits::FitsFile(directory / "data/lisa/rois.fits"), {{4, WfsGrid::MOST}});
    const auto references = common::Fits::ReadImg<float>(
        common::Fits::FitsFile(directory / "data/lisa/reference_points.fits"), {{2, WfsGrid::MOST}});
    for (std::size_t i = 0; i < WfsGrid::MOST; ++i) {
        bench.rois.emplace_back(rois[4 * i], rois[4 * i + 1], rois[4 * i + 2], rois[4 * i + 3], 840, 816,
                                references[2 * i], references[2 * i + 1]);
    }
    return bench;
}

Bench AliceBench() {
    auto bench = MakeBench<AliceNoiseRemoval>(test::TempDir{}.Path(), AliceModel());
    for (std::size_t i = 0; i < 25; ++i)
        bench.rois.push_back(CenteredRoi(10 + i % 5 * 44, 11 + i / 5 * 44, 40, bench.sensor->model));
    bench.frames = 24;
    return bench;
}

Bench MaranaBench() {
    auto bench = MakeBench<MaranaNoiseRemoval>(test::TempDir{}.Path(), MaranaModel());
    for (std::size_t i = 0; i < 64; ++i)
        bench.rois.push_back(CenteredRoi(701 + i % 8 * 64, 902 + i / 8 * 64, 48, bench.sensor->model));
    bench.window = ReadoutWindow{690, 900, 530, 520};
    bench.frames = 8;
    return bench;
}

// Cleans a rendered frame ROI by ROI, as a camera thread does, and hands out each one's cleaned frame.
void ForEachCleaned(Bench& bench, const std::vector<Spot>& spots,
                    const std::function<void(std::size_t, defs::AlignedFrame<float>&)>& use) {
    FrameRenderer renderer(bench.sensor, SEED);
    std::vector<std::uint16_t> raw(bench.sensor->model.RawSize());
    const ReadoutWindow part = bench.window.value_or(ReadoutWindow{});
    std::optional<Window> window;
    if (bench.window) window.emplace(Cut(part.x), Cut(part.y), Cut(part.width), Cut(part.height));
    for (std::uint64_t frame = 0; frame < bench.frames; ++frame) {
        bench.window ? renderer.Render(frame, spots, part, raw) : renderer.Render(frame, spots, raw);
        bench.cleaning->InvalidateCache();
        for (std::size_t i = 0; i < bench.rois.size(); ++i) {
            bench.cleaning->RemoveNoise(raw, window, bench.rois[i].Enlarge(1));
            use(i, bench.cleaning->GetFrame());
        }
    }
}

// Flux, x and y that a plain centre of gravity has in the light, and the rms that photons, read noise,
// rounding and the error of the dynamic bias give them.
using Estimate = std::array<std::pair<double, double>, 3>;

Estimate EstimatePlainly(const Bench& bench, const Roi& roi, const Spot& spot) {
    const CameraModel& model = bench.sensor->model;
    const auto below = [&](double x) { return 0.5 * std::erfc(-x / (model.spot_rms * std::numbers::sqrt2)); };
    const auto share = [&](double offset) { return below(offset + 0.5) - below(offset - 0.5); };
    const double still = double{model.read_noise} * model.read_noise + 1.0 / 12.0;
    const auto for_each = [&](auto&& use) {
        for (std::size_t y = roi.y_start; y < roi.y_stop; ++y) {
            for (std::size_t x = roi.x_start; x < roi.x_stop; ++x) {
                const std::array<double, 3> place{1.0, static_cast<double>(x), static_cast<double>(y)};
                use(place, model.background + spot.flux * share(place[1] - spot.x) * share(place[2] - spot.y),
                    bench.sensor->flat[y * model.Stride() + x]);
            }
        }
    };
    Estimate estimate{};
    double flux = 0.0;
    for_each([&](const auto&, double light, float) { flux += light; });
    for (std::size_t k = 0; k < 3; ++k) {
        auto& value = estimate[k].first;
        for_each([&](const auto& place, double light, float) {
            value += place[k] * light / (k == 0 ? 1.0 : flux);
        });
        double variance = 0.0;
        std::map<double, double> groups;  // what an error of the dynamic bias adds
        for_each([&](const auto& place, double light, float flat) {
            const double weight = (k == 0 ? 1.0 : (place[k] - value) / flux) / flat;
            variance += weight * weight * (still + model.gain * light * flat);
            groups[std::floor(place[2] / FrameRenderer::GROUP_ROWS)] += weight;
        });
        for (const auto& [group, weight] : groups) variance += weight * weight * still / bench.bias_pixels;
        estimate[k].second = std::sqrt(variance);
    }
    return estimate;
}

class ClosedCircle : public ::testing::TestWithParam<Bench (*)()> {};

TEST_P(ClosedCircle, FindsSpotsAsFarFromTheirPlaceAsNoiseAllows) {
    Bench bench = GetParam()();
    const CameraModel& model = bench.sensor->model;
    CentroidingCOG<float> centroiding(model.width, model.height, 10.0);
    PortableRandom random(SEED);
    std::vector<Spot> spots;
    std::vector<Estimate> expected;
    for (const Roi& roi : bench.rois) {
        // So near to the middle that the ROI holds all of the spot.
        spots.push_back({(roi.x_start + roi.x_stop - 1) / 2.0 + random.Uniform(-2.5, 2.5),
                         (roi.y_start + roi.y_stop - 1) / 2.0 + random.Uniform(-2.5, 2.5),
                         model.spot_flux * random.Uniform(0.5, 1.5)});
        expected.push_back(EstimatePlainly(bench, roi, spots.back()));
    }
    std::array<std::vector<double>, 3> pulls;  // deviations in units of their rms
    ForEachCleaned(bench, spots, [&](std::size_t i, const defs::AlignedFrame<float>& cleaned) {
        const Roi& roi = bench.rois[i];
        for (const BadPixel& bad : bench.sensor->bad_pixels)
            if (bad.x >= roi.x_start && bad.x < roi.x_stop && bad.y >= roi.y_start && bad.y < roi.y_stop)
                return;
        centroiding.Compute(cleaned, roi);
        const std::array<double, 3> found{centroiding.flux, centroiding.x + roi.ref_x,
                                          centroiding.y + roi.ref_y};
        for (std::size_t k = 0; k < 3; ++k)
            pulls[k].push_back((found[k] - expected[i][k].first) / expected[i][k].second);
    });
    for (const std::vector<double>& values : pulls) {
        ASSERT_GT(values.size(), 400U);
        const auto count = static_cast<double>(values.size());
        EXPECT_THAT(values, ::testing::Each(::testing::AllOf(::testing::Gt(-5.0), ::testing::Lt(5.0))));
        // ROIs side by side share a dynamic bias, so that their mean is not as exact as their number says.
        EXPECT_NEAR(std::accumulate(values.begin(), values.end(), 0.0) / count, 0.0, 0.2);
        // The mean of n squares is 1 within sqrt(2 / n).
        const double square = std::inner_product(values.begin(), values.end(), values.begin(), 0.0) / count;
        EXPECT_NEAR(square, 1.0, 5.0 * std::sqrt(2.0 / count));
    }
}

INSTANTIATE_TEST_SUITE_P(Cameras, ClosedCircle, ::testing::Values(&LisaBench, &AliceBench, &MaranaBench));

}  // namespace
}  // namespace vosk::rig
