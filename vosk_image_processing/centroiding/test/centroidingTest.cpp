#include <vosk/image_processing/centroiding.hpp>
#include <vosk/test/allocationCount.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/support.hpp>

namespace vosk::image_processing {
namespace {

constexpr std::uint16_t WIDTH = 12;
constexpr std::uint16_t HEIGHT = 10;

using test::TextOf;
using Cog = CentroidingCOG<float>;
using Tsh = CentroidingTSH<float>;
using Nbr = CentroidingNBR<float>;
using Frame = std::vector<float>;

Frame Dark() {
    return Frame(std::size_t{WIDTH} * HEIGHT);
}

float& At(Frame& frame, std::size_t column, std::size_t row) {
    return frame[row * WIDTH + column];
}

// 6 x 4 pixels from column 3, row 2.
Roi Region(double ref_x, double ref_y) {
    return {3, 9, 2, 6, WIDTH, HEIGHT, ref_x, ref_y};
}

defs::Slope Compute(Centroiding<float>& centroiding, const Frame& frame, const Roi& roi) {
    centroiding.Compute(frame, roi);
    return {centroiding.flux, centroiding.x, centroiding.y};
}

// One of each, all of which see a single bright pixel alike.
std::vector<std::unique_ptr<Centroiding<float>>> All(double saturation) {
    std::vector<std::unique_ptr<Centroiding<float>>> all;
    all.push_back(std::make_unique<Cog>(WIDTH, HEIGHT, saturation));
    all.push_back(std::make_unique<Tsh>(WIDTH, HEIGHT, saturation, 0.5F));
    auto nbr = std::make_unique<Nbr>(WIDTH, HEIGHT, saturation);
    nbr->SetNBrightest(5, true);
    all.push_back(std::move(nbr));
    return all;
}

TEST(Centroiding, FindsASpotFromTheReferencePointAndClampsIt) {
    Frame frame = Dark();
    At(frame, 7, 3) = 4.0F;
    for (const auto& centroiding : All(2.0)) {
        EXPECT_EQ(Compute(*centroiding, frame, Region(6.5, 4.25)), (defs::Slope{4.0, 0.5, -1.25}));
        EXPECT_EQ(Compute(*centroiding, frame, Region(0.0, 9.0)), (defs::Slope{4.0, 2.0, -2.0}));
    }
    for (const auto& centroiding : All(0.0)) {
        EXPECT_EQ(Compute(*centroiding, frame, Region(0.0, 9.0)), (defs::Slope{4.0, 0.0, 0.0}));
    }
}

TEST(Centroiding, GivesZeroesWhereThereIsNothing) {
    const Frame dark = Dark();
    Frame lit = Dark();
    for (float& pixel : lit) pixel = 1.0F;
    for (const auto& centroiding : All(2.0)) {
        EXPECT_EQ(Compute(*centroiding, dark, Region(6.0, 4.0)), defs::Slope{});
        // The last two lie behind the frame, which holds no pixel of theirs.
        const std::vector<Roi> empty{{3, 3, 2, 6, WIDTH, HEIGHT, 1, 1},
                                     {3, 9, 2, 2, WIDTH, HEIGHT, 1, 1},
                                     {0, 2048, 50, 50, 2048, 60, 1, 1},
                                     {60, 60, 0, 60, 60, 60, 1, 1}};
        for (const Roi& roi : empty) {
            Compute(*centroiding, lit, Region(6.0, 4.0));
            EXPECT_EQ(Compute(*centroiding, lit, roi), defs::Slope{});
        }
        std::vector<defs::Slope> slopes(empty.size(), defs::Slope{1.0, 2.0, 3.0});
        centroiding->ComputeMany(lit, empty, slopes);
        EXPECT_EQ(slopes, std::vector<defs::Slope>(empty.size()));
    }
}

TEST(Centroiding, ShowsANanUnlessTheThresholdSkipsIt) {
    Frame frame = Dark();
    At(frame, 7, 3) = 4.0F;
    At(frame, 4, 4) = std::numeric_limits<float>::quiet_NaN();
    const auto all = All(2.0);
    for (const std::size_t i : {0U, 2U}) {
        const auto slope = Compute(*all[i], frame, Region(6.5, 4.0));
        EXPECT_TRUE(std::isnan(slope.flux) && std::isnan(slope.x) && std::isnan(slope.y));
    }
    EXPECT_EQ(Compute(*all[1], frame, Region(6.5, 4.0)), (defs::Slope{4.0, 0.5, -1.0}));
}

TEST(CentroidingCOG, DividesByANegativeSum) {
    Frame frame = Dark();
    At(frame, 3, 2) = 1.0F;
    At(frame, 5, 3) = -2.0F;
    // Sum -1, moments -4 and -2.
    Cog cog{WIDTH, HEIGHT, 10.0};
    EXPECT_EQ(Compute(cog, frame, Region(3.0, 2.0)), (defs::Slope{-1.0, 4.0, 2.0}));
}

TEST(CentroidingTSH, TakesAPixelAtTheThresholdWhole) {
    Frame frame = Dark();
    At(frame, 3, 2) = 2.0F;
    At(frame, 7, 2) = 6.0F;
    At(frame, 8, 5) = std::nextafter(2.0F, 0.0F);
    Tsh tsh{WIDTH, HEIGHT, 10.0, 2.0F};
    EXPECT_EQ(Compute(tsh, frame, Region(3.0, 2.0)), (defs::Slope{8.0, 3.0, 0.0}));
    Tsh blind{WIDTH, HEIGHT, 10.0, 7.0F};
    EXPECT_EQ(Compute(blind, frame, Region(3.0, 2.0)), defs::Slope{});
}

TEST(CentroidingNBR, WeightsByRankIfItIsAskedTo) {
    Frame frame = Dark();
    At(frame, 4, 2) = 1.0F;
    At(frame, 5, 3) = 2.0F;
    At(frame, 7, 5) = 3.0F;
    Nbr nbr{WIDTH, HEIGHT, 10.0};
    nbr.SetNBrightest(2, true);
    // Weights 2 and 1: shares 6/8 at (4, 3) and 2/8 at (2, 1).
    EXPECT_EQ(Compute(nbr, frame, Region(3.0, 2.0)), (defs::Slope{5.0, 3.5, 2.5}));
    nbr.SetNBrightest(1, false);
    EXPECT_EQ(Compute(nbr, frame, Region(3.0, 2.0)), (defs::Slope{3.0, 4.0, 3.0}));
    nbr.SetNBrightest(1000, false);
    EXPECT_EQ(Compute(nbr, frame, Region(3.0, 2.0)).flux, 6.0);
    // Twice 1 and once -2: without a weighted sum it stays at the start.
    At(frame, 3, 2) = -2.0F;
    At(frame, 4, 2) = 1.0F;
    nbr.SetNBrightest(2, true);
    EXPECT_EQ(Compute(nbr, frame, {3, 5, 2, 3, WIDTH, HEIGHT, 1.0, 2.5}), (defs::Slope{-1.0, 2.0, -0.5}));
}

TEST(Centroiding, RefusesOtherFramesAndKeepsItsResult) {
    Frame frame = Dark();
    At(frame, 7, 3) = 4.0F;
    const Frame longer(frame.size() + 1);
    const Roi good = Region(7.0, 3.0);
    struct Case {
        const Frame& frame;
        Roi roi;
        std::string text;
    };
    const Case cases[] = {{longer, good, "ForEachPixel: required frame size: 120"},
                          {frame,
                           {0, WIDTH + 1, 0, 1, WIDTH + 1, HEIGHT, 0, 0},
                           "ForEachPixel: ROI (0..13),(0..1) does not fit a frame of 12 x 10"},
                          {frame,
                           {0, 1, 0, HEIGHT + 1, WIDTH, HEIGHT + 1, 0, 0},
                           "ForEachPixel: ROI (0..1),(0..11) does not fit a frame of 12 x 10"},
                          {frame,  // of the size of the good ones
                           {1, 7, 8, 12, 12, 12, 0, 0},
                           "ForEachPixel: ROI (1..7),(8..12) does not fit a frame of 12 x 10"}};
    const std::vector<defs::Slope> untouched(3, defs::Slope{1.0, 2.0, 3.0});
    std::vector<defs::Slope> slopes = untouched;
    for (const auto& centroiding : All(2.0)) {
        Compute(*centroiding, frame, Region(7.0, 2.0));
        for (const Case& at : cases) {
            const test::LogCapture log;
            EXPECT_EQ(TextOf<std::invalid_argument>([&] { centroiding->Compute(at.frame, at.roi); }),
                      at.text);
            EXPECT_EQ(TextOf<std::invalid_argument>([&] {
                          centroiding->ComputeMany(at.frame, std::vector{good, good, at.roi}, slopes);
                      }),
                      at.text);
            EXPECT_EQ(log.Count(log4cplus::ERROR_LOG_LEVEL, at.text), 2);
            EXPECT_EQ(slopes, untouched);
        }
        EXPECT_EQ(centroiding->flux, 4.0);
        EXPECT_EQ(centroiding->y, 1.0);
    }
}

TEST(Centroiding, RefusesSettingsThatAreNoNumberAndKeepsTheOldOnes) {
    Nbr nbr{WIDTH, HEIGHT, 10.0};
    nbr.SetNBrightest(7, false);
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { nbr.SetNBrightest(0, true); }, "SetNBrightest: nbrightest must not be 0"},
        {[] { Tsh(WIDTH, HEIGHT, 1.0, NAN); }, "Centroiding: treshold must be a number"},
        {[] { Cog(WIDTH, HEIGHT, -0.5); }, "Centroiding: saturation must not be negative: -0.5"},
        {[] { Cog(WIDTH, HEIGHT, NAN); }, "Centroiding: saturation must not be negative: nan"}};
    for (const auto& [call, text] : cases) {
        const test::LogCapture log;
        EXPECT_EQ(TextOf<std::invalid_argument>(call), text);
        EXPECT_EQ(log.Count(log4cplus::ERROR_LOG_LEVEL, text), 1);
    }
    EXPECT_EQ(nbr.GetNBrightest(), 7U);
    EXPECT_FALSE(nbr.GetWeightPixels());
}

std::size_t Allocations(const std::function<void()>& work) {
    const std::size_t before = test::AllocationsOfThisThread();
    work();
    return test::AllocationsOfThisThread() - before;
}

TEST(Centroiding, AllocatesNothingAfterTheFirstFrame) {
    const std::vector<Roi> rois{Region(6, 4), Region(6, 4), {0, 12, 0, 10, WIDTH, HEIGHT, 9, 9}};
    std::vector<defs::Slope> slopes(rois.size());
    Frame frame = Dark();
    for (std::size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<float>(i * 7919 % 1000);
    const auto all = All(10.0);
    auto& nbr = dynamic_cast<Nbr&>(*all.back());
    const auto compute = [&] {
        for (const auto& centroiding : all) {
            centroiding->ComputeMany(frame, rois, slopes);
            for (const Roi& roi : rois) centroiding->Compute(frame, roi);
        }
    };
    EXPECT_GT(Allocations(compute), 0U);
    EXPECT_EQ(Allocations(compute), 0U);
    // More pixels take more scratch, but not from a frame.
    EXPECT_GT(Allocations([&] { nbr.SetNBrightest(1000, true); }), 0U);
    EXPECT_EQ(Allocations(compute), 0U);
    // A region of another frame is refused before scratch is made for it.
    const auto refuse = [&](Centroiding<float>& by) {
        EXPECT_THROW(by.Compute(frame, {0, 999, 0, 999, 999, 999, 0, 0}), std::invalid_argument);
    };
    refuse(*all[0]);  // for the log's first line
    EXPECT_EQ(Allocations([&] { refuse(nbr); }), Allocations([&] { refuse(*all[0]); }));
}

}  // namespace
}  // namespace vosk::image_processing
