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

    // Whether the frame has the bits of the plain loop; `read` is the window that counts.
    testing::AssertionResult IsCleaned(Removal& removal, const std::optional<Window>& window,
                                       const Window& read, const std::optional<Roi>& roi) {
        removal.RemoveNoise(raw, window, roi);
        const Roi cleaned = roi.value_or(Roi{0, WIDTH, 0, HEIGHT, WIDTH, HEIGHT, 0, 0});
        reference::CleanInWindow(raw, bias, flat, read, cleaned, WIDTH, expected);
        return SameBits(removal.GetFrame(), expected)
               << ", window " << read.x_offset << ' ' << read.y_offset << ' ' << read.width << " x "
               << read.height << ", ROI " << cleaned.x_start << ' ' << cleaned.y_start;
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
        for (const Roi& roi : {At(216, 240, 216, 240), At(239, 240, 3, 99), At(1, 240, 239, 240),
                               At(7, 14, 7, 14), At(9, 9, 0, 240), At(0, 240, 0, 240)}) {
            ASSERT_TRUE(camera.IsCleaned(removal, Window{5, 5, 1, 1}, all, roi));
        }
        for (std::uint16_t& count : camera.raw) ++count;
        ASSERT_TRUE(camera.IsCleaned(removal, {}, all, {}));
    }
}

TEST_P(InOrder, MaranaGivesTheBitsOfThePlainLoopForEveryWindowAndRoi) {
    Camera<MaranaNoiseRemoval> camera;
    MaranaNoiseRemoval removal{camera.bias, camera.flat};
    ASSERT_TRUE(camera.IsCleaned(removal, {}, {0, 0, 2048, 2048}, {})) << "without a window";
    const Window windows[]{{500, 600, 100, 80}, {2000, 2000, 48, 48}, {0, 0, 1, 1},      {500, 600, 0, 80},
                           {0, 0, 4000, 1000},  {65535, 600, 3, 80},  {2000, 0, 65, 700}};
    const Roi rois[]{At(520, 544, 610, 634), At(490, 515, 590, 615),     At(590, 620, 670, 690),
                     At(480, 650, 605, 606), At(2030, 2048, 2030, 2048), At(0, 9, 0, 9)};
    for (const Window& window : windows) {
        for (const Roi& roi : rois) ASSERT_TRUE(camera.IsCleaned(removal, window, window, roi));
    }
}

}  // namespace
}  // namespace vosk::image_processing
