// Spots of known place and flux into the renderer, calibration files and raw frame into the image blocks,
// centroids out: as far from where they are expected as the noise allows, and not further.

#include "cameras/cameraFiles.hpp"
#include "cameras/frameRenderer.hpp"
#include "paperCentroid.hpp"
#include "portableRandom.hpp"

#include <vosk/common/fits.hpp>
#include <vosk/image_processing/badPixelCorrection.hpp>
#include <vosk/image_processing/centroiding.hpp>
#include <vosk/image_processing/noiseRemoval.hpp>
#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

#include <filesystem>

namespace vosk::rig {
namespace {

using namespace image_processing;
namespace fs = std::filesystem;

constexpr std::uint64_t SEED = 20;
// No single centroid is further off than this: one in 25 million is, by chance.
constexpr double FAR = 5.5;

bool Contains(const Roi& roi, const BadPixel& bad) {
    return bad.x >= roi.x_start && bad.x < roi.x_stop && bad.y >= roi.y_start && bad.y < roi.y_stop;
}

// A camera of the rig, and the blocks that know it from its files alone.
struct Bench {
    std::shared_ptr<const CameraSensor> sensor;
    std::unique_ptr<NoiseRemovalBase> cleaning;
    std::vector<Roi> rois;
    std::size_t bias_pixels = 0;  // that the dynamic bias of a group of rows is measured in
    std::size_t sharing = 1;      // regions beside each other, which have the same dynamic bias
    std::optional<ReadoutWindow> window;
    std::uint64_t frames = 1;

    bool IsClear(const Roi& roi) const {
        return std::none_of(sensor->bad_pixels.begin(), sensor->bad_pixels.end(),
                            [&](const BadPixel& bad) { return Contains(roi, bad); });
    }
};

std::uint16_t Cut(std::size_t value) {
    return static_cast<std::uint16_t>(value);
}

Roi CenteredRoi(std::size_t x, std::size_t y, std::size_t size, const CameraModel& model) {
    const double middle = static_cast<double>(size - 1) / 2.0;
    return {Cut(x),
            Cut(x + size),
            Cut(y),
            Cut(y + size),
            Cut(model.width),
            Cut(model.height),
            static_cast<double>(x) + middle,
            static_cast<double>(y) + middle};
}

// A square of cells, all alike.
std::vector<Roi> Cells(std::size_t across, std::size_t x, std::size_t y, std::size_t pitch, std::size_t size,
                       const CameraModel& model) {
    std::vector<Roi> rois;
    for (std::size_t cell = 0; cell < across * across; ++cell)
        rois.push_back(CenteredRoi(x + cell % across * pitch, y + cell / across * pitch, size, model));
    return rois;
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
    bench.sharing = WfsGrid::ACROSS;
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
    bench.rois = Cells(5, 10, 11, 44, 40, bench.sensor->model);
    bench.frames = 24;
    return bench;
}

Bench MaranaBench() {
    auto bench = MakeBench<MaranaNoiseRemoval>(test::TempDir{}.Path(), MaranaModel());
    bench.rois = Cells(8, 701, 902, 64, 48, bench.sensor->model);
    bench.window = ReadoutWindow{690, 900, 530, 520};
    bench.frames = 8;
    return bench;
}

// Cleans a rendered frame region by region, as a camera thread does, and hands out each one's cleaned frame.
void ForEachCleaned(Bench& bench, const std::vector<Spot>& spots,
                    const std::function<void(std::size_t, defs::AlignedFrame<float>&)>& use) {
    FrameRenderer renderer(bench.sensor, SEED);
    std::vector<std::uint16_t> raw(bench.sensor->model.RawSize());
    std::optional<Window> window;
    if (bench.window) {
        window.emplace(Cut(bench.window->x), Cut(bench.window->y), Cut(bench.window->width),
                       Cut(bench.window->height));
    }
    for (std::uint64_t frame = 0; frame < bench.frames; ++frame) {
        if (bench.window) {
            renderer.Render(frame, spots, *bench.window, raw);
        } else {
            renderer.Render(frame, spots, raw);
        }
        bench.cleaning->InvalidateCache();
        for (std::size_t i = 0; i < bench.rois.size(); ++i) {
            bench.cleaning->RemoveNoise(raw, window, bench.rois[i].Enlarge(1));
            use(i, bench.cleaning->GetFrame());
        }
    }
}

// Deviations from what is expected, in units of the rms that the noise gives them.
class Pulls {
public:
    // `sharing` is how many regions share a dynamic bias, and its error.
    Pulls(std::string what, std::size_t sharing) : m_what(std::move(what)), m_sharing(sharing) {}

    void Add(double found, const Quantity& expected) {
        const double pull = (found - expected.value) / expected.rms;
        EXPECT_LT(std::abs(pull), FAR) << m_what << ", number " << m_count;
        m_sum += pull;
        m_squares += pull * pull;
        m_common += expected.common_share * static_cast<double>(m_sharing - 1);
        m_count += 1.0;
    }
    // No bias that as many values could show.
    void ExpectUnbiased() const {
        EXPECT_GT(m_count, 100.0) << m_what;
        EXPECT_LT(std::abs(m_sum), FAR * std::sqrt(m_count + m_common)) << m_what;
    }
    // The noise is what it is said to be: the mean of n squares is 1 within sqrt(2 / n).
    void ExpectFullNoise() const {
        EXPECT_NEAR(m_squares / m_count, 1.0, FAR * std::sqrt(2.0 / m_count)) << m_what;
    }

private:
    const std::string m_what;
    const std::size_t m_sharing;
    double m_sum = 0.0;
    double m_squares = 0.0;
    double m_common = 0.0;
    double m_count = 0.0;
};

// Five times the noise of the sky, above the sky.
float Threshold(const CameraModel& model) {
    return model.background +
           5.0F * std::sqrt(model.read_noise * model.read_noise + model.gain * model.background);
}

class ClosedCircle : public ::testing::TestWithParam<Bench (*)()> {};

TEST_P(ClosedCircle, FindsSpotsWhereTheyAreExpectedAndAsFluxAndNoiseSay) {
    Bench bench = GetParam()();
    const CameraModel& model = bench.sensor->model;
    const float threshold = Threshold(model);
    PortableRandom random(SEED);
    std::vector<Spot> spots;
    std::vector<Expected> all;
    std::vector<Expected> bright;
    for (const Roi& roi : bench.rois) {
        // So near to the middle that the region holds all of the spot.
        const double x = (roi.x_start + roi.x_stop - 1) / 2.0;
        const double y = (roi.y_start + roi.y_stop - 1) / 2.0;
        spots.push_back({x + random.Uniform(-2.5, 2.5), y + random.Uniform(-2.5, 2.5),
                         model.spot_flux * random.Uniform(0.5, 1.5)});
        const PaperCentroid paper(*bench.sensor, roi, spots.back(), bench.bias_pixels);
        all.push_back(paper.OfAll());
        bright.push_back(paper.From(threshold));
        // The sky in the region pulls a plain centre of gravity to its middle.
        const double sky = static_cast<double>(roi.size) * model.background;
        EXPECT_NEAR(all.back().x.value,
                    (spots.back().flux * spots.back().x + sky * x) / (spots.back().flux + sky), 1e-4);
    }

    CentroidingCOG<float> cog(model.width, model.height, 10.0);
    CentroidingTSH<float> tsh(model.width, model.height, 10.0, threshold);
    Pulls cog_position("COG position", bench.sharing);
    Pulls cog_flux("COG flux", bench.sharing);
    Pulls tsh_position("TSH position", bench.sharing);
    Pulls tsh_flux("TSH flux", bench.sharing);
    const auto judge = [&](std::size_t i, const CentroidingBase& found, const Expected& expected,
                           Pulls& position, Pulls& flux) {
        position.Add(found.x + bench.rois[i].ref_x, expected.x);
        position.Add(found.y + bench.rois[i].ref_y, expected.y);
        flux.Add(found.flux, expected.flux);
    };
    ForEachCleaned(bench, spots, [&](std::size_t i, const defs::AlignedFrame<float>& cleaned) {
        if (!bench.IsClear(bench.rois[i])) return;
        cog.Compute(cleaned, bench.rois[i]);
        tsh.Compute(cleaned, bench.rois[i]);
        judge(i, cog, all[i], cog_position, cog_flux);
        judge(i, tsh, bright[i], tsh_position, tsh_flux);
    });
    for (const Pulls* pulls : {&cog_position, &cog_flux, &tsh_position, &tsh_flux}) {
        pulls->ExpectUnbiased();
        pulls->ExpectFullNoise();
    }
}

std::string CameraName(const ::testing::TestParamInfo<Bench (*)()>& instance) {
    if (instance.param == &LisaBench) return "Lisa";
    return instance.param == &AliceBench ? "Alice" : "Marana";
}

INSTANTIATE_TEST_SUITE_P(Cameras, ClosedCircle, ::testing::Values(&LisaBench, &AliceBench, &MaranaBench),
                         CameraName);

// Each in the light of a spot, so that neither a dead nor a hot one passes for its neighbours.
TEST(ClosedCircleWithBadPixels, RepairsThemFromTheirNeighbours) {
    Bench bench = LisaBench();
    const CameraModel& model = bench.sensor->model;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> bad_pixels;
    std::vector<BadPixel> judged;
    std::vector<Spot> spots;
    bench.rois.clear();
    for (const BadPixel& bad : bench.sensor->bad_pixels) {
        bad_pixels.emplace_back(bad.x, bad.y);
        if (bad.x < 32 || bad.x > 808 || bad.y < 16 || bad.y > 800) continue;
        judged.push_back(bad);
        bench.rois.push_back(CenteredRoi(bad.x - 10, bad.y - 11, 24, model));
        spots.push_back({bad.x + 0.5, bad.y + 0.5, model.spot_flux});
    }
    ASSERT_GT(judged.size(), 15U);
    const bad_pixel_correction_block correction(840, 816, bad_pixels, {1, 1, 1, 1, 0, 1, 1, 1, 1});
    ForEachCleaned(bench, spots, [&](std::size_t i, defs::AlignedFrame<float>& cleaned) {
        correction.work(cleaned, bench.rois[i]);
        const auto sum_of_row = [&](std::size_t y) {
            const float* pixel = cleaned.data() + y * model.width + judged[i].x;
            return double{pixel[-1]} + pixel[0] + pixel[1];
        };
        const double repaired = cleaned[judged[i].y * model.width + judged[i].x];
        const double all =
            sum_of_row(judged[i].y - 1) + sum_of_row(judged[i].y) + sum_of_row(judged[i].y + 1);
        EXPECT_GT(repaired, 100.0);
        EXPECT_NEAR(repaired, (all - repaired) / 8.0, 1e-3);
    });
}

}  // namespace
}  // namespace vosk::rig
