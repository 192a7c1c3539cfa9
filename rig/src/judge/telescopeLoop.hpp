#pragma once

// The telescope as a whole: whether each setpoint is what the mode makes of the commands that came in, and
// whether the loops reject what theory says they must. Sends and receives nothing.

#include "calibration.hpp"
#include "judge/loopModel.hpp"
#include "modeTimeline.hpp"
#include "peers/flowgraph.hpp"
#include "peers/m4Peer.hpp"
#include "telescope/instrumentLoop.hpp"
#include "telescope/optics.hpp"

#include <memory>
#include <utility>
#include <vector>

namespace vosk::rig {

class TelescopeLoop final : public Peer {
public:
    struct Parts {
        std::shared_ptr<const Optics> optics;
        std::shared_ptr<const InstrumentLoop> instrument;
        const M4Peer& m4;
        const Flowgraph& field;
        const Flowgraph& gpao;
    };
    TelescopeLoop(const Scenario& scenario, const LoopCalibration& calibration, const ModeTimeline& modes,
                  Parts parts)
        : m_scenario(scenario), m_calibration(calibration), m_modes(modes), m_parts(std::move(parts)) {}

    void AddTo(HostDocument& document) const override;
    void Start(time_point first) override { m_first = first; }
    void Stop() override {}
    PeerAccount Account(const RunFacts& facts) const override;

private:
    // A stretch of the run in one mode, seconds.
    struct Segment {
        defs::VoskControlMode mode;
        double begin;
        double end;
    };
    // Of a group of modes over a segment, radians rms.
    struct Fit {
        double sky = 0.0;
        double residual = 0.0;
        double predicted = 0.0;
        double error = 0.0;  // of residual less prediction

        double Rejection() const { return residual > 0.0 ? sky / residual : 0.0; }
    };

    void AddSetpoints(PeerAccount& account) const;
    void AddLoops(PeerAccount& account) const;
    std::vector<Segment> Segments() const;
    std::vector<LoopController> ControllersOf(defs::VoskControlMode mode, bool tip_tilt) const;
    Fit FitModes(const Segment& segment, std::size_t from, std::size_t to) const;
    Plot PlotResidual() const;
    Plot PlotRejection(const Segment& segment) const;

    const Scenario& m_scenario;
    const LoopCalibration& m_calibration;
    const ModeTimeline& m_modes;
    const Parts m_parts;
    time_point m_first;
};

}  // namespace vosk::rig
