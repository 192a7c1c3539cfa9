// ALICE and MARANA, whose raw frames lie in the order of the image.

#include <vosk/reference/cleaning.hpp>

#include "cleaningBench.hpp"

namespace vosk::image_processing {
namespace {

using defs::AlignedFrame;

template <class Removal>
struct Camera {
    static constexpr std::uint16_t WIDTH = Removal::WIDTH;
    static constexpr std::uint16_t HEIGHT = Removal::HEIGHT;
    static constexpr std::size_t SIZE = std::size_t{WIDTH} * HEIGHT;

    explicit Camera(std::uint32_t rarity = 16) : values{31, rarity} {
        Fill(raw, [this] { return values.Raw(); });
        Fill(bias, [this] { return values.Bias(); });
        Fill(flat, [this] { return values.Flat(); });
    }

    // Repeats itself, but in step with no row.
    template <class Frame, class Value>
    static void Fill(Frame& frame, Value value) {
        constexpr std::size_t PERIOD = 50'021;
        std::generate_n(frame.begin(), PERIOD, value);
        for (std::size_t i = PERIOD; i < SIZE; ++i) frame[i] = frame[i - PERIOD];
    }

    // The window's pixels stand packed at the start of the raw frame; all others are cleaned to zero.
    void Plain(const Window& window, const Roi& roi) {
        const auto x_stop = static_cast<std::uint16_t>(window.x_offset + window.width);
        const auto y_stop = static_cast<std::uint16_t>(window.y_offset + window.height);
        for (std::size_t y = roi.y_start; y < roi.y_stop; ++y) {
            for (std::size_t x = roi.x_start; x < roi.x_stop; ++x) {
                const std::size_t i = y * WIDTH + x;
                const bool is_read = x >= window.x_offset && x < x_stop && y >= window.y_offset && y < y_stop;
                const std::size_t packed = (y - window.y_offset) * window.width + (x - window.x_offset);
                expected[i] = is_read ? reference::CleanedPixel(raw[packed], bias[i], 0.0, flat[i]) : 0.0F;
            }
        }
    }

    static Roi At(std::uint16_t x_start, std::uint16_t x_stop, std::uint16_t y_start, std::uint16_t y_stop) {
        return {x_start, x_stop, y_start, y_stop, WIDTH, HEIGHT, 0.0, 0.0};
    }

    Values values;
    AlignedFrame<std::uint16_t> raw = AlignedFrame<std::uint16_t>(SIZE);
    AlignedFrame<float> bias = AlignedFrame<float>(SIZE);
    AlignedFrame<float> flat = AlignedFrame<float>(SIZE);
    AlignedFrame<float> expected = AlignedFrame<float>(SIZE);
};

using InOrder = OnEachInstructionSet;
INSTANTIATE_TEST_SUITE_P(Targets, InOrder, OnEachInstructionSet::All(), OnEachInstructionSet::Name);

TEST_P(InOrder, AliceGivesTheBitsOfThePlainLoopForEveryRoi) {
    const Window all{0, 0, 240, 240};
    for (const std::uint32_t rarity : {16U, 0U}) {
        Camera<AliceNoiseRemoval> camera{rarity};
        AliceNoiseRemoval removal{camera.bias, camera.flat};
        for (const Roi& roi :
             {camera.At(0, 24, 0, 24), camera.At(216, 240, 216, 240), camera.At(239, 240, 3, 99),
              camera.At(1, 240, 239, 240), camera.At(7, 14, 7, 14), camera.At(9, 9, 0, 240),
              camera.At(0, 9, 8, 8), camera.At(0, 240, 0, 240)}) {
            removal.RemoveNoise(camera.raw, Window{5, 5, 1, 1}, roi);
            camera.Plain(all, roi);
            ASSERT_TRUE(SameBits(removal.GetFrame(), camera.expected)) << roi.x_start << ' ' << roi.y_start;
        }
        for (std::uint16_t& count : camera.raw) ++count;
        removal.RemoveNoise(camera.raw, {}, {});
        camera.Plain(all, camera.At(0, 240, 0, 240));
        ASSERT_TRUE(SameBits(removal.GetFrame(), camera.expected));
    }
}

TEST_P(InOrder, MaranaGivesTheBitsOfThePlainLoopForEveryWindowAndRoi) {
    using Marana = Camera<MaranaNoiseRemoval>;
    Marana camera;
    MaranaNoiseRemoval removal{camera.bias, camera.flat};
    removal.RemoveNoise(camera.raw, {}, {});
    camera.Plain({0, 0, 2048, 2048}, Marana::At(0, 2048, 0, 2048));
    ASSERT_TRUE(SameBits(removal.GetFrame(), camera.expected)) << "without a window";
    const Window windows[]{{0, 0, 2048, 2048},   {500, 600, 100, 80},
                           {2000, 2000, 48, 48}, {0, 0, 1, 1},
                           {510, 0, 3, 2048},    {0, 0, 0, 0},
                           {500, 600, 0, 80},    {0, 0, 4000, 1000},
                           {65535, 600, 3, 80},  {500, 65000, 100, 2000},
                           {2000, 0, 65, 700}};
    const Roi rois[]{Marana::At(520, 544, 610, 634), Marana::At(490, 515, 590, 615),
                     Marana::At(590, 620, 670, 690), Marana::At(480, 650, 605, 606),
                     Marana::At(100, 124, 100, 124), Marana::At(2030, 2048, 2030, 2048),
                     Marana::At(0, 9, 0, 9),         Marana::At(505, 505, 0, 2048)};
    for (const Window& window : windows) {
        for (const Roi& roi : rois) {
            removal.RemoveNoise(camera.raw, window, roi);
            camera.Plain(window, roi);
            const auto rows = [&](std::span<const float> frame) {  // and one above
                const std::size_t first = roi.y_start > 0 ? roi.y_start - 1U : 0U;
                return frame.subspan(first * Marana::WIDTH, (roi.y_stop - first) * Marana::WIDTH);
            };
            ASSERT_TRUE(SameBits(rows(removal.GetFrame()), rows(camera.expected)))
                << "window " << window.x_offset << ' ' << window.y_offset << ' ' << window.width << " x "
                << window.height << ", ROI " << roi.x_start << ' ' << roi.y_start;
        }
    }
    EXPECT_TRUE(SameBits(removal.GetFrame(), camera.expected));
}

}  // namespace
}  // namespace vosk::image_processing
