#pragma once

// The telescope as a whole: whether each setpoint is what the mode makes of the commands that came in, and
// whether the loops reject what theory says they must. Sends and receives nothing.

#include "calibration.hpp"
#include "judge/loopModel.hpp"
#include "judge/outages.hpp"
#include "modeTimeline.hpp"
#include "peers/flowgraph.hpp"
#include "peers/instrument.hpp"
#include "peers/m4Peer.hpp"
#include "telescope/instrumentLoop.hpp"
#include "telescope/optics.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <utility>
#include <vector>

namespace vosk::rig {

class TelescopeLoop final : public Judge {
public:
    struct Parts {
        std::shared_ptr<const Optics> optics;
        std::shared_ptr<const InstrumentLoop> instrument;
        const Instrument& commands;
        const M4Peer& m4;
        const Flowgraph& field;
        const Flowgraph& gpao;
    };
    TelescopeLoop(const Scenario& scenario, const LoopCalibration& calibration, const ModeTimeline& modes,
                  Parts parts)
        : m_scenario(scenario), m_calibration(calibration), m_modes(modes), m_parts(std::move(parts)) {}

    void AddTo(HostDocument& document) const override;
    void Start(time_point first) override { m_first = first; }
    PeerAccount Account(const RunFacts& facts) const override;

private:
    // A stretch of the run in one mode, seconds.
    struct Segment {
        defs::VoskControlMode mode;
        double begin;
        double end;
    };
    // Modes of the light that are judged together.
    struct Group {
        const char* name;
        std::size_t from;
        std::size_t to;

        bool IsTipTilt() const { return from == 0; }
    };
    static const std::array<Group, 2> GROUPS;
    struct Window {
        double begin;
        double end;
    };
    // Of a group of modes, sums of squares over exposures; and radians rms.
    struct Fit {
        double sky = 0.0;
        double residual = 0.0;
        double predicted = 0.0;
        double error = 0.0;  // of residual less prediction
        std::size_t count = 0;

        double Rms(double sum) const {
            return std::sqrt(sum / static_cast<double>(std::max<std::size_t>(count, 1)));
        }
        double Rejection() const { return residual > 0.0 ? std::sqrt(sky / residual) : 0.0; }
        // Of the residual, over what is predicted.
        double Excess() const { return predicted > 0.0 ? std::sqrt(residual / predicted) : 0.0; }
    };

    void AddSetpoints(PeerAccount& account) const;
    void AddPackets(PeerAccount& account, const RunFacts& facts) const;
    void AddLoops(PeerAccount& account) const;
    void AddReturns(PeerAccount& account) const;
    std::vector<Segment> Segments() const;
    std::vector<ClosedStretch> Closed(const Segment& segment, const Group& group) const;
    std::vector<LoopController> ControllersOf(defs::VoskControlMode mode, bool tip_tilt) const;
    // `take` gets the time of each exposure, the light of the sky, and what the mirrors leave of it.
    template <class Take>
    void ForEachExposure(Window window, const Take& take) const;
    // Adds the exposures of the window. The prediction starts at rest with the stretch.
    void FitModes(Fit& fit, defs::VoskControlMode mode, const Group& group, double start,
                  Window window) const;
    Plot PlotResidual() const;
    Plot PlotRejection(defs::VoskControlMode mode, Window window) const;

    const Scenario& m_scenario;
    const LoopCalibration& m_calibration;
    const ModeTimeline& m_modes;
    const Parts m_parts;
    time_point m_first;
};

}  // namespace vosk::rig
