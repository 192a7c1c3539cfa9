#include <vosk/image_processing/pixelRange.hpp>
#include <vosk/test/support.hpp>

namespace {

using vosk::image_processing::RangeOf;
using vosk::image_processing::Roi;
using vosk::image_processing::Window;

TEST(Roi, KnowsItsSizeMayBeEmptyAndMayReachTheEdges) {
    const Roi roi{10, 34, 20, 30, 240, 250, 1.5, 2.5};
    EXPECT_EQ(std::tuple(roi.width, roi.height, roi.size), std::tuple(24, 10, 240U));
    EXPECT_EQ((Roi{0, 65535, 0, 65535, 65535, 65535, 0.0, NAN}.size), 65535UL * 65535UL);
    EXPECT_EQ((Roi{240, 240, 10, 20, 240, 200, NAN, 0.0}.size), 0U);
    EXPECT_EQ((Roi{239, 240, 198, 200, 240, 200, 240.0, 200.0}.size), 2U);
}

TEST(Rectangles, AreRefusedWhereTheyLeaveTheFrameOrRunBack) {
    const auto reference = [](double x, double y) { return [=] { Roi(0, 1, 0, 1, 240, 200, x, y); }; };
    const auto range = [](const Roi& roi) { return [=] { RangeOf(roi, 10, 20, "Test"); }; };
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[] { Roi(5, 4, 1, 2, 10, 10, 0, 0); }, "Roi: invalid coordinates: (5..4),(1..2)"},
        {[] { Roi(1, 2, 5, 4, 10, 10, 0, 0); }, "Roi: invalid coordinates: (1..2),(5..4)"},
        {[] { Roi(0, 11, 0, 10, 10, 12, 0, 0); }, "Roi: invalid coordinates: (0..11),(0..10)"},
        {[] { Roi(0, 10, 0, 11, 12, 10, 0, 0); }, "Roi: invalid coordinates: (0..10),(0..11)"},
        {reference(240.001, 0), "Roi: invalid reference point: (240.001000,0.000000)"},
        {reference(1, -0.001), "Roi: invalid reference point: (1.000000,-0.001000)"},
        {[] { Window(1, 0, 2048, 1024, 2048, 1024); }, "Window: invalid offsets: (1..2049),(0..1024)"},
        {[] { Window(0, 1000, 10, 25, 2048, 1024); }, "Window: invalid offsets: (0..10),(1000..1025)"},
        {range(Roi{1, 11, 0, 10, 99, 99, 0, 0}), "Test: ROI (1..11),(0..10) does not fit a frame of 10 x 20"},
        {range(Roi{1, 10, 0, 21, 99, 99, 0, 0}),
         "Test: ROI (1..10),(0..21) does not fit a frame of 10 x 20"}};
    for (const auto& [make, text] : cases) {
        EXPECT_EQ(vosk::test::TextOf<std::invalid_argument>([&call = make] { return call(), 0; }), text);
    }
}

TEST(Roi, GrowsAsFarAsTheFrameGoes) {
    const Roi roi{0, 10, 5, 199, 240, 200, 3.0, 4.0};
    EXPECT_EQ(roi.Enlarge(1), (Roi{0, 11, 4, 200, 240, 200, 3.0, 4.0}));
    EXPECT_EQ(roi.Enlarge(65535), (Roi{0, 240, 0, 200, 240, 200, 3.0, 4.0}));
}

TEST(Window, MayFillTheFrameAndCountsItsFarEdgesIn16Bits) {
    EXPECT_EQ((Window{0, 0, 2048, 1024, 2048, 1024}.size), 2048U * 1024U);
    EXPECT_EQ((Window{65535, 65530, 2, 10, 2048, 2048}.XStop()), 1);
    EXPECT_EQ((Window{65535, 65530, 2, 10}.YStop()), 4);
}

TEST(PixelRange, IsTheRoiOrTheFrameAndEmptyOfARoiWithoutPixels) {
    using Edges = std::array<std::size_t, 4>;
    const auto range = [](const std::optional<Roi>& roi) {
        const auto of = RangeOf(roi, 10, 20, "Test");
        return Edges{of.x_start, of.x_stop, of.y_start, of.y_stop};
    };
    EXPECT_EQ(range({}), (Edges{0, 10, 0, 20}));
    EXPECT_EQ(range(Roi{1, 10, 3, 20, 99, 99, 0, 0}), (Edges{1, 10, 3, 20}));
    Roi turned{4, 9, 4, 9, 99, 99, 0, 0};
    turned.x_stop = 3;  // as a writable field allows
    for (const Roi& roi : {Roi{50, 60, 70, 70, 99, 99, 0, 0}, Roi{50, 50, 0, 99, 99, 99, 0, 0}, turned}) {
        EXPECT_EQ(range(roi), Edges{});
    }
}

}  // namespace
