#include <lumolib/simSourceManager.hpp>

#include <vosk/test/support.hpp>

namespace vosk::lumo {
namespace {

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
    auto& manager = SimSourceManager::GetInstance();
    std::array<defs::CentroidError, 4> img;
    std::array<defs::WfsTopic, 4> wfs;
    const auto fill = [&] {
        return manager.GetSimCentroids(img[0], img[1], img[2], img[3], wfs[0], wfs[1], wfs[2], wfs[3]);
    };
    const auto base = manager.m_simulator;
    EXPECT_FALSE(fill());
    manager.m_simulator = std::make_shared<Numbering>();
    EXPECT_TRUE(fill());
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(img[i].sample_id, i + 1);
        EXPECT_EQ(wfs[i].slopes.size(), i + 5);
    }
    manager.m_simulator = base;
}

}  // namespace
}  // namespace vosk::lumo
