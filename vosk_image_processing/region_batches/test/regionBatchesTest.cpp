#include <vosk/image_processing/regionBatches.hpp>
#include <vosk/test/support.hpp>

#include <random>

namespace vosk::image_processing {
namespace {

using defs::AlignedFrame;
using defs::Slope;
using Engine = std::mt19937;

constexpr std::uint16_t SIDE = AliceNoiseRemoval::WIDTH;
constexpr std::size_t SIZE = std::size_t{SIDE} * SIDE;

template <class T>
AlignedFrame<T> Random(Engine& engine, T low, T high) {
    AlignedFrame<T> frame(SIZE);
    for (T& value : frame)
        value = static_cast<T>(low + static_cast<T>(engine() % 1024) * (high - low) / 1024);
    return frame;
}

Roi At(std::size_t left, std::size_t top, std::size_t width, std::size_t height) {
    const auto cut = [](std::size_t value) { return static_cast<std::uint16_t>(value); };
    return {cut(left), cut(left + width), cut(top), cut(top + height), SIDE, SIDE, 1.0, 2.0};
}

std::vector<Roi> SideBySide(std::size_t size) {
    std::vector<Roi> rois;
    for (std::size_t i = 0; i < 100; ++i) rois.push_back(At(i % 10 * size, i / 10 * size, size, size));
    return rois;
}

// Of all sizes, empty ones too, in a part of the frame: some overlap, some touch, some do neither.
std::vector<Roi> Anywhere(Engine& engine) {
    const std::size_t part = 40 + engine() % 180;
    std::vector<Roi> rois;
    for (std::size_t i = engine() % 150; i > 0; --i)
        rois.push_back(At(engine() % part, engine() % part, engine() % 20, engine() % 20));
    return rois;
}

std::vector<BadPixel> BadPixels(std::size_t count, Engine& engine) {
    std::vector<BadPixel> bad_pixels(count);
    for (auto& [x, y] : bad_pixels) {
        x = 1U + static_cast<std::uint32_t>(engine() % (SIDE - 2));
        y = 1U + static_cast<std::uint32_t>(engine() % (SIDE - 2));
    }
    return bad_pixels;
}

struct Worker {
    explicit Worker(Engine& engine) : removal{Random(engine, 90.0F, 110.0F), Random(engine, 0.5F, 2.0F)} {}

    std::vector<Slope> OneByOne(const AlignedFrame<std::uint16_t>& raw, const std::vector<Roi>& rois,
                                const bad_pixel_correction_block* correction) {
        std::vector<Slope> slopes;
        for (const Roi& roi : rois) {
            removal.RemoveNoise(raw, {}, correction != nullptr ? roi.Enlarge(1) : roi);
            if (correction != nullptr) correction->work(removal.GetFrame(), roi);
            estimator.Compute(removal.GetFrame(), roi);
            slopes.push_back({estimator.flux, estimator.x, estimator.y});
        }
        return slopes;
    }

    AliceNoiseRemoval removal;
    CentroidingCOG<float> estimator{SIDE, SIDE, 1000.0};
};

TEST(RegionBatches, GiveTheBitsOfRoiByRoiWhereverTheyLie) {
    Engine engine{17};
    Worker plain{engine};
    Engine again{17};
    Worker batched{again};
    for (int round = 0; round < 120; ++round) {
        const auto rois = round % 3 == 0 ? SideBySide(1 + engine() % 24) : Anywhere(engine);
        const std::size_t bad_pixels[]{0, 10, 300, 10'000};
        const bad_pixel_correction_block block{
            SIDE, SIDE, BadPixels(bad_pixels[round % 4], engine), {1, 2, 1, 2, 0.5F, 2, 1, 2, 1}};
        const auto* const correction = round % 5 == 0 ? nullptr : &block;
        const RegionBatches batches{rois, correction};
        for (int frame = 0; frame < 2; ++frame) {
            const auto raw = Random<std::uint16_t>(engine, 0, 60'000);
            std::vector<Slope> slopes(rois.size());
            batches.ComputeSlopes(raw, {}, batched.removal, batched.estimator, slopes);
            ASSERT_EQ(slopes, plain.OneByOne(raw, rois, correction)) << round;
            ASSERT_EQ(batched.removal.GetFrame(), plain.removal.GetFrame()) << round;
        }
    }
}

TEST(RegionBatches, AreFewUnlessARepairDisturbsAnotherRoi) {
    const auto rois = SideBySide(8);
    const auto batches_with = [&](const std::vector<BadPixel>& bad_pixels) {
        const bad_pixel_correction_block block{SIDE, SIDE, bad_pixels, std::vector<float>(9, 1.0F)};
        return RegionBatches{rois, &block}.GetBatchCount();
    };
    EXPECT_EQ((RegionBatches{rois, nullptr}.GetBatchCount()), 2U);
    EXPECT_EQ(batches_with({{3, 3}, {12, 3}, {12, 6}}), 2U);
    EXPECT_EQ(batches_with({{7, 3}}), 3U);  // in the ring of the second one
    EXPECT_EQ(batches_with({{8, 3}}), 2U);  // in that of the first one, which is repaired before
    EXPECT_EQ((RegionBatches{SideBySide(24), nullptr}.GetBatchCount()), 4U);
}

}  // namespace
}  // namespace vosk::image_processing
