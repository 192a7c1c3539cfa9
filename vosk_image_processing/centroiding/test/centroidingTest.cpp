#include <vosk/image_processing/centroiding.hpp>
#include <vosk/test/allocationCount.hpp>
#include <vosk/test/logCapture.hpp>
#include <vosk/test/support.hpp>

namespace vosk::image_processing {
namespace {

constexpr std::uint16_t WIDTH = 12;
constexpr std::uint16_t HEIGHT = 10;

using defs::Slope;
using Cog = CentroidingCOG<float>;
using Tsh = CentroidingTSH<float>;
using Nbr = CentroidingNBR<float>;
using Frame = std::vector<float>;

struct Pixel {
    std::size_t column;
    std::size_t row;
    float value;
};

Frame Lit(const std::vector<Pixel>& pixels) {
    Frame frame(std::size_t{WIDTH} * HEIGHT);
    for (const auto& [column, row, value] : pixels) frame[row * WIDTH + column] = value;
    return frame;
}

// 6 x 4 pixels from column 3, row 2.
Roi Region(double ref_x, double ref_y) {
    return {3, 9, 2, 6, WIDTH, HEIGHT, ref_x, ref_y};
}

Slope Compute(Centroiding<float>& centroiding, const Frame& frame, const Roi& roi) {
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

// The call fails with the text, which also stands in the log.
void ExpectRefused(const std::function<void()>& call, const std::string& text) {
    const test::LogCapture log;
    EXPECT_EQ(test::TextOf<std::invalid_argument>(call), text);
    EXPECT_EQ(log.Count(log4cplus::ERROR_LOG_LEVEL, text), 1);
}

TEST(Centroiding, FindsASpotFromTheReferencePointAndClampsIt) {
    const Frame frame = Lit({{7, 3, 4.0F}});
    for (const auto& centroiding : All(2.0)) {
        EXPECT_EQ(Compute(*centroiding, frame, Region(6.5, 4.25)), (Slope{4.0, 0.5, -1.25}));
        EXPECT_EQ(Compute(*centroiding, frame, Region(0.0, 9.0)), (Slope{4.0, 2.0, -2.0}));
    }
    for (const auto& centroiding : All(0.0)) {
        EXPECT_EQ(Compute(*centroiding, frame, Region(0.0, 9.0)), (Slope{4.0, 0.0, 0.0}));
    }
}

TEST(Centroiding, GivesZeroesWhereThereIsNothing) {
    const Frame lit(std::size_t{WIDTH} * HEIGHT, 1.0F);
    for (const auto& centroiding : All(2.0)) {
        EXPECT_EQ(Compute(*centroiding, Lit({}), Region(6.0, 4.0)), Slope{});
        // The last two lie behind the frame, which holds no pixel of theirs.
        const std::vector<Roi> empty{{3, 3, 2, 6, WIDTH, HEIGHT, 1, 1},
                                     {3, 9, 2, 2, WIDTH, HEIGHT, 1, 1},
                                     {0, 2048, 50, 50, 2048, 60, 1, 1},
                                     {60, 60, 0, 60, 60, 60, 1, 1}};
        for (const Roi& roi : empty) {
            Compute(*centroiding, lit, Region(6.0, 4.0));
            EXPECT_EQ(Compute(*centroiding, lit, roi), Slope{});
        }
        std::vector<Slope> slopes(empty.size(), Slope{1.0, 2.0, 3.0});
        centroiding->ComputeMany(lit, empty, slopes);
        EXPECT_EQ(slopes, std::vector<Slope>(empty.size()));
    }
}

TEST(Centroiding, DividesByANegativeSumAndShowsANanUnlessTheThresholdSkipsThem) {
    const auto all = All(10.0);
    const Frame negative = Lit({{3, 2, 1.0F}, {5, 3, -2.0F}});  // sum -1, moments -4 and -2
    EXPECT_EQ(Compute(*all[0], negative, Region(3.0, 2.0)), (Slope{-1.0, 4.0, 2.0}));
    const Frame frame = Lit({{7, 3, 4.0F}, {4, 4, NAN}, {5, 3, -2.0F}});
    for (const std::size_t i : {0U, 2U}) {
        const auto slope = Compute(*all[i], frame, Region(6.5, 4.0));
        EXPECT_TRUE(std::isnan(slope.flux) && std::isnan(slope.x) && std::isnan(slope.y));
    }
    EXPECT_EQ(Compute(*all[1], frame, Region(6.5, 4.0)), (Slope{4.0, 0.5, -1.0}));
    const Frame edge = Lit({{3, 2, 0.5F}, {7, 2, 1.5F}, {8, 5, std::nextafter(0.5F, 0.0F)}});
    EXPECT_EQ(Compute(*all[1], edge, Region(3.0, 2.0)), (Slope{2.0, 3.0, 0.0}));
}

TEST(CentroidingNBR, WeightsByRankIfItIsAskedTo) {
    const Frame frame = Lit({{4, 2, 1.0F}, {5, 3, 2.0F}, {7, 5, 3.0F}});
    Nbr nbr{WIDTH, HEIGHT, 10.0};
    nbr.SetNBrightest(2, true);
    // Weights 2 and 1: shares 6/8 at (4, 3) and 2/8 at (2, 1).
    EXPECT_EQ(Compute(nbr, frame, Region(3.0, 2.0)), (Slope{5.0, 3.5, 2.5}));
    // Twice 1 and once -2: without a weighted sum it stays at the start.
    const Roi pair{3, 5, 2, 3, WIDTH, HEIGHT, 1.0, 2.5};
    EXPECT_EQ(Compute(nbr, Lit({{3, 2, -2.0F}, {4, 2, 1.0F}}), pair), (Slope{-1.0, 2.0, -0.5}));
    nbr.SetNBrightest(1, false);
    EXPECT_EQ(Compute(nbr, frame, Region(3.0, 2.0)), (Slope{3.0, 4.0, 3.0}));
}

TEST(Centroiding, RefusesOtherFramesAndKeepsItsResult) {
    const Frame frame = Lit({{7, 3, 4.0F}});
    const Roi good = Region(7.0, 3.0);
    const std::vector<Slope> untouched(3, Slope{1.0, 2.0, 3.0});
    std::vector<Slope> slopes = untouched;
    for (const auto& centroiding : All(2.0)) {
        Compute(*centroiding, frame, Region(7.0, 2.0));
        const auto refuses = [&](const Frame& from, const Roi& roi, const std::string& text) {
            ExpectRefused([&] { centroiding->Compute(from, roi); }, "ForEachPixel: " + text);
            ExpectRefused(
                [&] {
                    centroiding->ComputeMany(from, std::vector{good, good, roi}, slopes);
                },
                "ForEachPixel: " + text);
        };
        const std::string misfit = " does not fit a frame of 12 x 10";
        refuses(Frame(frame.size() + 1), good, "required frame size: 120");
        refuses(frame, {0, WIDTH + 1, 0, 1, WIDTH + 1, HEIGHT, 0, 0}, "ROI (0..13),(0..1)" + misfit);
        refuses(frame, {0, 1, 0, HEIGHT + 1, WIDTH, HEIGHT + 1, 0, 0}, "ROI (0..1),(0..11)" + misfit);
        // As large as the good ones.
        refuses(frame, {1, 7, 8, 12, 12, 12, 0, 0}, "ROI (1..7),(8..12)" + misfit);
        EXPECT_EQ(slopes, untouched);
        EXPECT_EQ(centroiding->flux, 4.0);
        EXPECT_EQ(centroiding->y, 1.0);
    }
}

TEST(Centroiding, RefusesSettingsThatAreNoNumberAndKeepsTheOldOnes) {
    Nbr nbr{WIDTH, HEIGHT, 10.0};
    nbr.SetNBrightest(7, false);
    ExpectRefused([&] { nbr.SetNBrightest(0, true); }, "SetNBrightest: nbrightest must not be 0");
    EXPECT_EQ(nbr.GetNBrightest(), 7U);
    EXPECT_FALSE(nbr.GetWeightPixels());
    const std::string text = "Centroiding: saturation must not be negative: ";
    ExpectRefused([] { Cog(WIDTH, HEIGHT, -0.5); }, text + "-0.5");
    ExpectRefused([] { Cog(WIDTH, HEIGHT, NAN); }, text + "nan");
    ExpectRefused([] { Tsh(WIDTH, HEIGHT, 1.0, NAN); }, "Centroiding: treshold must be a number");
}

TEST(Centroiding, AllocatesNothingAfterTheFirstFrame) {
    const std::vector<Roi> rois{Region(6, 4), Region(6, 4), {0, 12, 0, 10, WIDTH, HEIGHT, 9, 9}};
    std::vector<Slope> slopes(rois.size());
    const Frame frame = Lit({{3, 2, 2.0F}, {7, 2, 6.0F}});
    const auto all = All(10.0);
    auto& nbr = dynamic_cast<Nbr&>(*all.back());
    const auto allocations = [](const auto& work) {
        const std::size_t before = test::AllocationsOfThisThread();
        work();
        return test::AllocationsOfThisThread() - before;
    };
    const auto compute = [&] {
        for (const auto& centroiding : all) {
            centroiding->ComputeMany(frame, rois, slopes);
            for (const Roi& roi : rois) centroiding->Compute(frame, roi);
        }
    };
    EXPECT_GT(allocations(compute), 0U);
    EXPECT_EQ(allocations(compute), 0U);
    // More pixels take more scratch, but not from a frame.
    EXPECT_GT(allocations([&] { nbr.SetNBrightest(1000, true); }), 0U);
    EXPECT_EQ(allocations(compute), 0U);
    // A region of another frame is refused before scratch is made for it.
    const auto refuse = [&](Centroiding<float>& by) {
        EXPECT_THROW(by.Compute(frame, {0, 999, 0, 999, 999, 999, 0, 0}), std::invalid_argument);
    };
    refuse(*all[0]);  // for the log's first line
    EXPECT_EQ(allocations([&] { refuse(nbr); }), allocations([&] { refuse(*all[0]); }));
}

}  // namespace
}  // namespace vosk::image_processing
