#pragma once

// Where simulated centroids come from: wavefront sensors and field stabilisation ask here, if configured to,
// instead of measuring. The library itself brings no simulator; a host installs and starts one of its own.

#include <vosk/defs/valueTypes.hpp>

#include <array>
#include <memory>
#include <string>

namespace vosk::lumo {

namespace simulation {

// A source of simulated centroids. This class is the one that has none; a simulator derives from it.
class CentroidSimulator {
public:
    using CentroidError = defs::CentroidError;
    using WfsTopic = defs::WfsTopic;

    CentroidSimulator() = default;
    CentroidSimulator(const CentroidSimulator&) = delete;
    CentroidSimulator& operator=(const CentroidSimulator&) = delete;

    // The centroid errors of the imaging cameras and the slopes of the wavefront sensors, of GP1, GP2, GP3
    // and the PDS. False: nothing was touched. Called by several threads at once.
    virtual bool GetSimCentroids(CentroidError& gp1, CentroidError& gp2, CentroidError& gp3,
                                 CentroidError& pds, WfsTopic& wfs_gp1, WfsTopic& wfs_gp2, WfsTopic& wfs_gp3,
                                 WfsTopic& wfs_pds);
    virtual bool IsEnabled();
    // For the host, with a text that host and simulator agree on.
    virtual void ConfigureSim(const std::string& config);
    virtual void StartSim();

    // Last, so that the table of virtual operations begins with GetSimCentroids.
    virtual ~CentroidSimulator() = default;
};

}  // namespace simulation

class SimSourceManager {
public:
    using CentroidError = defs::CentroidError;
    using WfsTopic = defs::WfsTopic;

    // Made at first use, kept until the process ends.
    static SimSourceManager& GetInstance();

    SimSourceManager(const SimSourceManager&) = delete;
    SimSourceManager& operator=(const SimSourceManager&) = delete;

    // Whether there is a simulator and it is to be asked.
    bool IsEnabled() const { return m_simulator && m_simulator->IsEnabled(); }

    // That of the simulator; false without one.
    bool GetSimCentroids(CentroidError& gp1, CentroidError& gp2, CentroidError& gp3, CentroidError& pds,
                         WfsTopic& wfs_gp1, WfsTopic& wfs_gp2, WfsTopic& wfs_gp3, WfsTopic& wfs_pds);

    // For the host to set before threads run; only read from then on. Empty counts as disabled.
    std::shared_ptr<simulation::CentroidSimulator> m_simulator;

private:
    SimSourceManager();
};

// What a simulator gives in one call. The slopes of all sensors are too many for a stack.
struct SimulatedCentroids {
    // As GetSimCentroids().
    bool Fetch();

    std::array<defs::CentroidError, 4> img;  // GP1, GP2, GP3, PDS, as the next
    std::array<defs::WfsTopic, 4> wfs;
};

}  // namespace vosk::lumo
