#include <vosk/image_processing/centroiding.hpp>
#include <vosk/test/allocationCount.hpp>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace {

using namespace vosk::image_processing;

TEST(Centroiding, AllocatesNothingAfterTheFirstFrame) {
    constexpr std::uint16_t SIDE = 64;
    std::vector<std::unique_ptr<Centroiding<float>>> all;
    all.push_back(std::make_unique<CentroidingCOG<float>>(SIDE, SIDE, 10.0));
    all.push_back(std::make_unique<CentroidingTSH<float>>(SIDE, SIDE, 10.0, 1.0F));
    all.push_back(std::make_unique<CentroidingNBR<float>>(SIDE, SIDE, 10.0));
    auto& nbr = dynamic_cast<CentroidingNBR<float>&>(*all.back());
    nbr.SetNBrightest(300, true);
    std::vector<Roi> rois;
    for (const unsigned size : {24U, 24U, 24U, 8U, 5U, 5U}) {
        const auto stop = static_cast<std::uint16_t>(7 + size);
        rois.emplace_back(std::uint16_t{7}, stop, std::uint16_t{7}, stop, SIDE, SIDE, 9.0, 9.0);
    }
    std::vector<vosk::defs::Slope> slopes(rois.size());
    std::vector<float> frame(std::size_t{SIDE} * SIDE);
    for (std::size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<float>(i * 7919 % 1000);

    const auto compute = [&] {
        for (const auto& centroiding : all) {
            centroiding->ComputeMany(frame, rois, slopes);
            for (const Roi& roi : rois) centroiding->Compute(frame, roi);
        }
    };
    const auto allocations = [&](const auto& work) {
        const std::size_t before = vosk::test::AllocationsOfThisThread();
        work();
        return vosk::test::AllocationsOfThisThread() - before;
    };
    EXPECT_GT(allocations(compute), 0U);
    EXPECT_EQ(allocations(compute), 0U);
    // More pixels take more scratch, but not from a frame.
    nbr.SetNBrightest(20, true);
    EXPECT_EQ(allocations(compute), 0U);
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
