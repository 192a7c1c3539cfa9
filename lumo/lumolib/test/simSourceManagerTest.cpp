#include <lumolib/simSourceManager.hpp>

#include <gtest/gtest.h>

#include <array>
#include <memory>

namespace vosk::lumo {
namespace {

struct Centroids {
    std::array<defs::CentroidError, 4> img;
    std::array<defs::WfsTopic, 4> wfs;

    bool Get() {
        return SimSourceManager::GetInstance().GetSimCentroids(img[0], img[1], img[2], img[3], wfs[0], wfs[1],
                                                               wfs[2], wfs[3]);
    }

    void ExpectNumbered() const {
        for (std::size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(img[i].sample_id, i + 1);
            EXPECT_EQ(wfs[i].slopes.size(), i + 5);
        }
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

TEST(SimSourceManager, OnlyASimulatorOfTheHostFillsTheArgumentsInTheirOrder) {
    auto& simulator = SimSourceManager::GetInstance().m_simulator;
    const auto base = simulator;
    ASSERT_NE(base, nullptr);
    Centroids centroids;
    simulator = std::make_shared<Numbering>();
    EXPECT_TRUE(centroids.Get());
    centroids.ExpectNumbered();
    simulator = nullptr;
    EXPECT_FALSE(centroids.Get());
    simulator = base;
    base->ConfigureSim("any");
    base->StartSim();
    EXPECT_FALSE(base->IsEnabled());
    EXPECT_FALSE(centroids.Get());
    centroids.ExpectNumbered();  // nothing was touched
}

}  // namespace
}  // namespace vosk::lumo
