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
    for (const std::size_t nbrightest : {20U, 300U}) {
        auto nbr = std::make_unique<CentroidingNBR<float>>(SIDE, SIDE, 10.0);
        nbr->SetNBrightest(nbrightest, true);
        all.push_back(std::move(nbr));
    }
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
    compute();
    const std::size_t before = vosk::test::AllocationsOfThisThread();
    ASSERT_GT(before, 0U);
    compute();
    EXPECT_EQ(vosk::test::AllocationsOfThisThread(), before);
}

}  // namespace
