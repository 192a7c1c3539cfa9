// One example a formula on paper, what is refused, and that nothing allocates.

#include <hwy/targets.h>
#include <vosk/image_processing/centroiding.hpp>
#include <vosk/test/allocationCount.hpp>
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
Roi RoiAround(double ref_x, double ref_y) {
    return {3, 9, 2, 6, WIDTH, HEIGHT, ref_x, ref_y};
}

Slope Compute(Centroiding<float>& centroiding, const Frame& frame, const Roi& roi) {
    centroiding.Compute(frame, roi);
    return {centroiding.flux, centroiding.x, centroiding.y};
}

// One of each, all of which see a single bright pixel alike.
struct Estimators {
    Estimators() { nbr.SetNBrightest(5, true); }

    Cog cog{WIDTH, HEIGHT, 2.0};
    Tsh tsh{WIDTH, HEIGHT, 2.0, 0.5F};
    Nbr nbr{WIDTH, HEIGHT, 2.0};
    const std::array<Centroiding<float>*, 3> all{&cog, &tsh, &nbr};
};

TEST(Centroiding, FindsASpotFromTheReferencePointAndClampsIt) {
    Estimators estimators;
    const Frame frame = Lit({{7, 3, 4.0F}});
    for (Centroiding<float>* const centroiding : estimators.all) {
        EXPECT_EQ(Compute(*centroiding, frame, RoiAround(6.5, 4.25)), (Slope{4.0, 0.5, -1.25}));
        EXPECT_EQ(Compute(*centroiding, frame, RoiAround(0.0, 9.0)), (Slope{4.0, 2.0, -2.0}));
    }
    // All but the least below the threshold.
    const Frame edge = Lit({{4, 2, 0.5F}, {5, 2, 1.5F}, {8, 5, std::nextafter(0.5F, 0.0F)}});
    EXPECT_EQ(Compute(estimators.tsh, edge, RoiAround(3.0, 2.0)), (Slope{2.0, 1.75, 0.0}));
}

TEST(CentroidingNBR, WeightsByRankIfItIsAskedTo) {
    const Frame frame = Lit({{4, 2, 1.0F}, {5, 3, 2.0F}, {7, 5, 3.0F}});
    Nbr nbr{WIDTH, HEIGHT, 10.0};
    nbr.SetNBrightest(2, true);
    // Weights 2 and 1: shares 6/8 at (4, 3) and 2/8 at (2, 1).
    EXPECT_EQ(Compute(nbr, frame, RoiAround(3.0, 2.0)), (Slope{5.0, 3.5, 2.5}));
    nbr.SetNBrightest(1, false);
    EXPECT_EQ(Compute(nbr, frame, RoiAround(3.0, 2.0)), (Slope{3.0, 4.0, 3.0}));
}

TEST(Centroiding, RefusesOtherFramesAndKeepsItsResult) {
    const Frame frame = Lit({{7, 3, 4.0F}});
    const Roi good = RoiAround(7.0, 2.0);
    const std::vector<Slope> untouched(2, Slope{1.0, 2.0, 3.0});
    std::vector<Slope> slopes = untouched;
    Estimators estimators;
    for (Centroiding<float>* const centroiding : estimators.all) {
        const Slope before = Compute(*centroiding, frame, good);
        const auto refuses = [&](const Frame& from, const Roi& roi) {
            EXPECT_THROW(centroiding->Compute(from, roi), std::invalid_argument);
            EXPECT_THROW(centroiding->ComputeMany(from, std::vector{good, roi}, slopes),
                         std::invalid_argument);
        };
        refuses(Frame(frame.size() + 1), good);
        refuses(frame, {0, WIDTH + 1, 0, 1, WIDTH + 1, HEIGHT, 0, 0});
        refuses(frame, {1, 7, 8, 12, 12, 12, 0, 0});  // as large as the good one
        EXPECT_EQ(slopes, untouched);
        EXPECT_EQ((Slope{centroiding->flux, centroiding->x, centroiding->y}), before);
    }
    EXPECT_THROW(estimators.nbr.SetNBrightest(0, true), std::invalid_argument);
    EXPECT_EQ(estimators.nbr.GetNBrightest(), 5U);
    EXPECT_THROW(Cog(WIDTH, HEIGHT, -0.5), std::invalid_argument);
    EXPECT_THROW(Cog(WIDTH, HEIGHT, NAN), std::invalid_argument);
    EXPECT_THROW(Tsh(WIDTH, HEIGHT, 1.0, NAN), std::invalid_argument);
}

TEST(Centroiding, KnowsTheInstructionSetBeforeItsFirstFrameAndAllocatesNothingAfterIt) {
    const std::vector<Roi> rois{RoiAround(6, 4), RoiAround(6, 4), {0, 12, 0, 10, WIDTH, HEIGHT, 9, 9}};
    std::vector<Slope> slopes(rois.size());
    const Frame frame = Lit({{3, 2, 2.0F}, {7, 2, 6.0F}});
    hwy::GetChosenTarget().DeInit();
    Estimators estimators;
    EXPECT_TRUE(hwy::GetChosenTarget().IsInitialized());
    const auto allocations = [](const auto& work) {
        const std::size_t before = test::AllocationsOfThisThread();
        work();
        return test::AllocationsOfThisThread() - before;
    };
    const auto compute = [&] {
        for (Centroiding<float>* const centroiding : estimators.all) {
            centroiding->ComputeMany(frame, rois, slopes);
            for (const Roi& roi : rois) centroiding->Compute(frame, roi);
        }
    };
    EXPECT_GT(allocations(compute), 0U);
    EXPECT_EQ(allocations(compute), 0U);
    // More pixels take more scratch, but not from a frame.
    EXPECT_GT(allocations([&] { estimators.nbr.SetNBrightest(1000, true); }), 0U);
    EXPECT_EQ(allocations(compute), 0U);
}

}  // namespace
}  // namespace vosk::image_processing
