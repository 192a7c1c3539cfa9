// The judge of cameras: its books, and its theory of centroids against frames that are rendered and measured
// in the plainest way.

#include "cameras/plainCleaning.hpp"
#include "judge/cameraVerdict.hpp"

#include "cameras/light.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;

time_point At(std::chrono::nanoseconds time) {
    return time_point{1000s + time};
}

// Frames 0.1 s apart with IDs from 1, all of them processed and counted, until a test spoils something.
struct Books {
    std::vector<FrameRecord> frames;
    std::vector<ResultRecord> results;
    std::uint64_t published = 20;
    RunFacts run;

    Books() {
        for (std::uint32_t i = 0; i < 20; ++i) {
            const time_point time = At(100ms * i);
            frames.push_back({i, {}, {}, time, time, time + 4ms, i + 1, std::nullopt});
            results.push_back({i + 1, time + 5ms, time, i + 1, 1, ResultRecord::NOT_KEPT});
        }
        run.status.streams["IMG_PDS"].samples = 20;
        run.status.cameras["IMG_PDS"].processed = 20;
        run.at_rest = true;
    }
    void Harm(std::size_t frame, FaultKind kind) { frames[frame].fault = kind; }
    // The host refuses the frame.
    void Refuse(std::size_t frame) {
        results.erase(results.begin() + static_cast<std::ptrdiff_t>(frame));
        --published;
        --run.status.streams["IMG_PDS"].samples;
        ++run.status.streams["IMG_PDS"].invalid;
        --run.status.cameras["IMG_PDS"].processed;
    }
    std::string Verdict(CameraKind kind = CameraKind::Marana) const {
        CameraFacts facts;
        facts.frames = frames;
        facts.results = results;
        facts.published = published;
        std::string text;
        for (const std::string& violation :
             JudgeFrames("IMG_PDS", kind, facts, AccountForFrames(facts, kind), run, 0.01))
            text += violation + "\n";
        return text;
    }
};

TEST(CameraVerdict, HoldsOnlyIfEveryFrameIsAccountedFor) {
    struct Case {
        const char* what;
        void (*spoil)(Books&);
        const char* violation;  // nothing: it holds
    };
    const Case cases[]{
        {"nothing", [](Books&) {}, nullptr},
        {"refused and broken", [](Books& b) { b.Harm(5, FaultKind::Drop), b.Refuse(5); }, nullptr},
        {"wrong window", [](Books& b) { b.Harm(5, FaultKind::WrongWindow), b.Refuse(5); }, nullptr},
        {"twice is no harm", [](Books& b) { b.Harm(5, FaultKind::Duplicate); }, nullptr},
        {"unseen by the watch", [](Books& b) { b.results.erase(b.results.begin() + 5); }, nullptr},
        {"refused and whole", [](Books& b) { b.Refuse(5); }, "results of 19 of 20 whole frames"},
        {"used though broken", [](Books& b) { b.Harm(5, FaultKind::BadStatus); }, "though they were spoilt"},
        {"no such frame", [](Books& b) { b.results[5].sample_id = 77; }, "belong to no frame"},
        {"another exposure", [](Books& b) { b.results[5].exposed += 1ns; }, "belong to no frame"},
        {"out of order", [](Books& b) { std::swap(b.results[5], b.results[6]); }, "out of order"},
        {"counted nowhere",
         [](Books& b) {
             b.Harm(5, FaultKind::Drop), b.Refuse(5), b.run.status.streams["IMG_PDS"].invalid = 0;
         },
         "20 frames were sent, but the host counts 19 valid, 0 invalid, 0 lost"},
        {"skipped", [](Books& b) { --b.run.status.cameras["IMG_PDS"].processed, --b.published; },
         "processed 19 of 20 valid frames"},
    };
    for (const Case& test : cases) {
        Books books;
        test.spoil(books);
        const std::string verdict = books.Verdict();
        if (test.violation == nullptr)
            EXPECT_EQ(verdict, "") << test.what;
        else
            EXPECT_NE(verdict.find(test.violation), std::string::npos) << test.what << ": " << verdict;
    }
}

TEST(CameraVerdict, AsksForNoWindowOfACameraThatHasNone) {
    Books books;
    books.Harm(5, FaultKind::WrongWindow);
    EXPECT_EQ(books.Verdict(CameraKind::Lisa), "");
    books.Harm(6, FaultKind::BadStatus);
    EXPECT_EQ(books.Verdict(CameraKind::Alice), "");
}

std::shared_ptr<const CameraSensor> AliceSensor() {
    static const auto sensor = std::make_shared<const CameraSensor>(MakeSensor(AliceModel(), 3));
    return sensor;
}

// A centre of gravity of the pixels from the threshold on, from the reference point.
Spot PlainCentroid(const std::vector<float>& image, const SpotRegion& region, double threshold) {
    Spot sum{0.0, 0.0, 0.0};
    for (std::size_t y = region.y_start; y < region.y_stop; ++y) {
        for (std::size_t x = region.x_start; x < region.x_stop; ++x) {
            const double value = image[y * 240 + x];
            if (value < threshold) continue;
            sum.flux += value;
            sum.x += value * static_cast<double>(x);
            sum.y += value * static_cast<double>(y);
        }
    }
    return {sum.x / sum.flux - region.ref_x, sum.y / sum.flux - region.ref_y, sum.flux};
}

// Mean and scatter of 600 frames, within what 600 frames tell.
TEST(SpotPredictor, TellsMeanAndNoiseOfCentroids) {
    struct Case {
        Spot spot;
        double threshold;
    };
    const SpotRegion region{110, 130, 112, 132, 120.0, 121.0};
    const Case cases[]{{{120.3, 121.4, 3000.0}, 30.0},
                       {{118.0, 123.5, 3000.0}, 60.0},
                       {{121.7, 119.2, 30000.0}, SpotPredictor::NO_THRESHOLD}};
    const SpotPredictor predictor(*AliceSensor());
    FrameRenderer renderer(AliceSensor(), 11);
    for (const auto& [spot, threshold] : cases) {
        constexpr int FRAMES = 600;
        const SpotPrediction expected = predictor.Predict(std::span(&spot, 1), region, {}, threshold);
        ASSERT_FALSE(expected.has_bad_pixel);
        double mean = 0.0;
        double squares = 0.0;
        std::vector<std::uint16_t> raw(AliceModel().RawSize());
        for (int frame = 0; frame < FRAMES; ++frame) {
            renderer.Render(static_cast<std::uint64_t>(frame), std::span(&spot, 1), raw);
            const Spot found = PlainCentroid(CleanFrame(*AliceSensor(), raw), region, threshold);
            mean += (found.x - expected.x) / expected.sigma_x / FRAMES;
            squares += std::pow((found.x - expected.x) / expected.sigma_x, 2) / FRAMES;
        }
        EXPECT_LT(std::abs(mean), 4.0 / std::sqrt(FRAMES)) << threshold;
        EXPECT_NEAR(squares, 1.0, 4.0 * std::sqrt(2.0 / FRAMES)) << threshold;
    }
}

TEST(MethodTimeline, KnowsNoMethodWhileItIsBeingChanged) {
    CameraSettings settings;
    settings.kind = CameraKind::Alice;
    settings.reference = {120, 120};
    const std::shared_ptr<const LightSource> light =
        std::make_shared<Light>(LightSettings{}, 1, 2, Seconds{0.1});
    const CameraScene scene(settings, AliceSensor(), light, 1);
    const std::vector<HostCommand> commands{{At(100ms), At(110ms), SetCentroiding{3, 0.0, 0}},
                                            {At(200ms), At(210ms), SetReference{{100, 90}, {20, 10}}}};
    const MethodTimeline methods(scene, commands);
    EXPECT_EQ(methods.Find(At(90ms), At(100ms))->option, 1U);
    EXPECT_EQ(methods.Find(At(99ms), At(101ms)), nullptr);  // seen after the change was asked for
    EXPECT_EQ(methods.Find(At(109ms), At(120ms)), nullptr);
    EXPECT_EQ(methods.Find(At(110ms), At(120ms))->option, 3U);
    const Centroiding* const last = methods.Find(At(210ms), At(220ms));
    EXPECT_EQ(last->option, 3U);  // stays what it was
    EXPECT_EQ(last->regions.front().x_start, 90U);
    EXPECT_EQ(last->regions.front().y_stop, 95U);
}

}  // namespace
}  // namespace vosk::rig
