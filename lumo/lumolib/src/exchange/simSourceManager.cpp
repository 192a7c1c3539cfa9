#include <lumolib/simSourceManager.hpp>

namespace vosk::lumo {

namespace simulation {

bool CentroidSimulator::GetSimCentroids(CentroidError& /*gp1*/, CentroidError& /*gp2*/,
                                        CentroidError& /*gp3*/, CentroidError& /*pds*/, WfsTopic& /*wfs_gp1*/,
                                        WfsTopic& /*wfs_gp2*/, WfsTopic& /*wfs_gp3*/, WfsTopic& /*wfs_pds*/) {
    return false;
}

bool CentroidSimulator::IsEnabled() {
    return false;
}

void CentroidSimulator::ConfigureSim(const std::string& /*config*/) {}

void CentroidSimulator::StartSim() {}

}  // namespace simulation

SimSourceManager::SimSourceManager() : m_simulator{std::make_shared<simulation::CentroidSimulator>()} {}

SimSourceManager& SimSourceManager::GetInstance() {
    static SimSourceManager instance;
    return instance;
}

bool SimSourceManager::GetSimCentroids(CentroidError& gp1, CentroidError& gp2, CentroidError& gp3,
                                       CentroidError& pds, WfsTopic& wfs_gp1, WfsTopic& wfs_gp2,
                                       WfsTopic& wfs_gp3, WfsTopic& wfs_pds) {
    if (!m_simulator) return false;
    return m_simulator->GetSimCentroids(gp1, gp2, gp3, pds, wfs_gp1, wfs_gp2, wfs_gp3, wfs_pds);
}

bool SimulatedCentroids::Fetch() {
    return SimSourceManager::GetInstance().GetSimCentroids(img[0], img[1], img[2], img[3], wfs[0], wfs[1],
                                                           wfs[2], wfs[3]);
}

}  // namespace vosk::lumo
