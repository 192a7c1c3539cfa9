#include <gtest/gtest.h>
#include <vosk/image_processing/pixelRange.hpp>
#include <vosk/test/logCapture.hpp>

#include <cstdint>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>

namespace {

using vosk::image_processing::RangeOf;
using vosk::image_processing::Roi;
using vosk::image_processing::Window;
using vosk::test::LogCapture;

constexpr double NOT_KNOWN = std::numeric_limits<double>::quiet_NaN();

// The call fails with the text, which also stands in the log.
void ExpectRefused(const std::function<void()>& make, const std::string& text) {
    const LogCapture log;
    try {
        make();
        FAIL() << "accepted, instead of: " << text;
    } catch (const std::invalid_argument& error) {
        EXPECT_EQ(error.what(), text);
    }
    EXPECT_EQ(log.Count(log4cplus::ERROR_LOG_LEVEL, text), 1);
}

TEST(Roi, KnowsItsSize) {
    const Roi roi{10, 34, 20, 30, 240, 250, 1.5, 2.5};
    EXPECT_EQ(roi.width, 24);
    EXPECT_EQ(roi.height, 10);
    EXPECT_EQ(roi.size, 240U);
    EXPECT_EQ(roi.frame_width, 240);
    EXPECT_EQ(roi.frame_height, 250);
    EXPECT_EQ(roi.ref_x, 1.5);
    EXPECT_EQ(roi.ref_y, 2.5);
    EXPECT_EQ((Roi{0, 65535, 0, 65535, 65535, 65535, 0.0, 0.0}.size), 65535UL * 65535UL);
}

TEST(Roi, MayBeEmptyAndMayReachTheEdges) {
    EXPECT_EQ((Roi{0, 0, 0, 0, 240, 240, 0.0, 0.0}.size), 0U);
    EXPECT_EQ((Roi{240, 240, 10, 20, 240, 240, 0.0, 0.0}.size), 0U);
    EXPECT_EQ((Roi{239, 240, 238, 240, 240, 240, 240.0, 240.0}.size), 2U);
}

TEST(Roi, RefusesCoordinatesThatRunBackOrLeaveTheFrame) {
    ExpectRefused([] { Roi(5, 4, 1, 2, 10, 10, 0, 0); }, "Roi: invalid coordinates: (5..4),(1..2)");
    ExpectRefused([] { Roi(1, 2, 5, 4, 10, 10, 0, 0); }, "Roi: invalid coordinates: (1..2),(5..4)");
    ExpectRefused([] { Roi(0, 11, 0, 10, 10, 10, 0, 0); }, "Roi: invalid coordinates: (0..11),(0..10)");
    ExpectRefused([] { Roi(0, 10, 0, 11, 10, 10, 0, 0); }, "Roi: invalid coordinates: (0..10),(0..11)");
}

TEST(Roi, RefusesAReferencePointOutsideTheFrame) {
    const auto at = [](double x, double y) { return [=] { Roi(0, 1, 0, 1, 240, 200, x, y); }; };
    ExpectRefused(at(240.001, 0), "Roi: invalid reference point: (240.001000,0.000000)");
    ExpectRefused(at(-0.001, 0), "Roi: invalid reference point: (-0.001000,0.000000)");
    ExpectRefused(at(1, 200.5), "Roi: invalid reference point: (1.000000,200.500000)");
    ExpectRefused(at(1, -7), "Roi: invalid reference point: (1.000000,-7.000000)");
    EXPECT_NO_THROW(at(240, 200)());
    EXPECT_NO_THROW(at(NOT_KNOWN, NOT_KNOWN)());
}

TEST(Roi, TellsOfBadCoordinatesBeforeABadReferencePoint) {
    ExpectRefused([] { Roi(5, 4, 1, 2, 10, 10, -1, 99); }, "Roi: invalid coordinates: (5..4),(1..2)");
}

TEST(Roi, GrowsAsFarAsTheFrameGoes) {
    const Roi roi{0, 10, 5, 239, 240, 240, 3.0, 4.0};
    EXPECT_EQ(roi.Enlarge(1), (Roi{0, 11, 4, 240, 240, 240, 3.0, 4.0}));
    EXPECT_EQ(roi.Enlarge(7), (Roi{0, 17, 0, 240, 240, 240, 3.0, 4.0}));
    EXPECT_EQ(roi.Enlarge(65535), (Roi{0, 240, 0, 240, 240, 240, 3.0, 4.0}));
    EXPECT_EQ(roi.Enlarge(0), roi);
}

TEST(Window, MayFillTheFrameButNotLeaveIt) {
    EXPECT_EQ((Window{0, 0, 2048, 2048, 2048, 2048}.size), 2048U * 2048U);
    ExpectRefused([] { Window(1, 0, 2048, 2048, 2048, 2048); },
                  "Window: invalid offsets: (1..2049),(0..2048)");
    ExpectRefused([] { Window(0, 2000, 10, 49, 2048, 2048); },
                  "Window: invalid offsets: (0..10),(2000..2049)");
}

TEST(Window, CountsItsFarEdgesIn16Bits) {
    const Window window{65535, 65530, 2, 10, 2048, 2048};
    EXPECT_EQ(window.XStop(), 1);
    EXPECT_EQ(window.YStop(), 4);
    EXPECT_EQ((Window{65535, 0, 2, 10}.XStop()), 1);
}

TEST(PixelRange, IsTheRoiOrTheFrame) {
    const auto frame = RangeOf({}, 10, 20, "Test");
    EXPECT_EQ(frame.Width(), 10U);
    EXPECT_EQ(frame.Height(), 20U);
    const auto roi = RangeOf(Roi{1, 10, 3, 20, 99, 99, 0, 0}, 10, 20, "Test");
    EXPECT_EQ(roi.x_start, 1U);
    EXPECT_EQ(roi.x_stop, 10U);
    EXPECT_EQ(roi.y_start, 3U);
    EXPECT_EQ(roi.y_stop, 20U);
}

TEST(PixelRange, OfARoiWithoutPixelsIsEmptyWhereverItLies) {
    Roi turned{4, 9, 4, 9, 99, 99, 0, 0};
    turned.x_stop = 3;  // as a writable field allows
    for (const Roi& roi : {Roi{50, 60, 70, 70, 99, 99, 0, 0}, Roi{50, 50, 0, 99, 99, 99, 0, 0}, turned}) {
        const auto empty = RangeOf(roi, 10, 20, "Test");
        EXPECT_EQ(empty.Size(), 0U);
        EXPECT_EQ(empty.x_start + empty.y_start, 0U);
    }
}

TEST(PixelRange, RefusesARoiOfALargerFrame) {
    ExpectRefused(
        [] {
            RangeOf(Roi{1, 11, 0, 20, 99, 99, 0, 0}, 10, 20, "Test");
        },
        "Test: ROI (1..11),(0..20) does not fit a frame of 10 x 20");
    ExpectRefused(
        [] {
            RangeOf(Roi{1, 10, 0, 21, 99, 99, 0, 0}, 10, 20, "Test");
        },
        "Test: ROI (1..10),(0..21) does not fit a frame of 10 x 20");
}

}  // namespace
