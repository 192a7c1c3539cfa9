#include <lumolib/simSourceManager.hpp>

#include <gtest/gtest.h>

#include <array>

namespace vosk::lumo {
namespace {

struct Centroids {
    std::array<defs::CentroidError, 4> img;
    std::array<defs::WfsTopic, 4> wfs;

    bool Get() {
        return SimSourceManager::GetInstance().GetSimCentroids(img[0], img[1], img[2], img[3], wfs[0], wfs[1],
                                                               wfs[2], wfs[3]);
    }
};

class Numbering : public simulation::CentroidSimulator {
public:
    bool GetSimCentroids(CentroidError& gp1, CentroidError& gp2, CentroidError& gp3, CentroidError& pds,
                         WfsTopic& wfs_gp1, WfsTopic& wfs_gp2, WfsTopic& wfs_gp3,
                         WfsTopic& wfs_pds) override {
        unsigned number = 0;
        for (auto* img : {&gp1, &gp2, &gp3, &pds}) img->sample_id = ++number;
        for (auto* wfs : {&wfs_gp1, &wfs_gp2, &wfs_gp3, &wfs_pds}) wfs->slopes.resize(++number);
        return true;
    }
};

TEST(SimSourceManager, WithoutASimulatorNothingIsTouched) {
    SimSourceManager& manager = SimSourceManager::GetInstance();
    ASSERT_NE(manager.m_simulator, nullptr);
    EXPECT_FALSE(manager.m_simulator->IsEnabled());
    manager.m_simulator->ConfigureSim("any");
    manager.m_simulator->StartSim();
    Centroids centroids;
    centroids.img[2].slope.flux = 5;
    centroids.wfs[3].sample_id = 6;
    EXPECT_FALSE(centroids.Get());
    const auto base = std::exchange(manager.m_simulator, nullptr);
    EXPECT_FALSE(centroids.Get());
    manager.m_simulator = base;
    EXPECT_EQ(centroids.img[2].slope.flux, 5);
    EXPECT_EQ(centroids.wfs[3].sample_id, 6);
}

TEST(SimSourceManager, ASimulatorOfTheHostGetsTheArgumentsInTheirOrder) {
    SimSourceManager& manager = SimSourceManager::GetInstance();
    const auto base = std::exchange(manager.m_simulator, std::make_shared<Numbering>());
    Centroids centroids;
    EXPECT_TRUE(centroids.Get());
    manager.m_simulator = base;
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(centroids.img[i].sample_id, i + 1);
        EXPECT_EQ(centroids.wfs[i].slopes.size(), i + 5);
    }
}

}  // namespace
}  // namespace vosk::lumo
