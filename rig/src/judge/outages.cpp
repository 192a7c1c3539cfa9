#include "judge/outages.hpp"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

namespace vosk::rig {
namespace {

// What a step does to a peer of a loop; `away` for none of them.
struct Turn {
    std::string who;
    Leg leg = Leg::M4;
    bool away = false;
};

struct TurnOf {
    const Scenario& scenario;

    std::optional<Turn> operator()(const SetM4Alive& action) const {
        return Turn{"M4", Leg::M4, !action.alive};
    }
    std::optional<Turn> operator()(const SetInstrumentSilent& action) const {
        return Turn{"the instrument", Leg::Instrument, action.silent};
    }
    std::optional<Turn> operator()(const SetFlowgraphAlive& action) const {
        if (action.kind == FlowgraphKind::Gpao) return Turn{"GPAO's flowgraph", Leg::Gpao, !action.alive};
        return Turn{"field stabilisation's flowgraph", Leg::Field, !action.alive};
    }
    std::optional<Turn> operator()(const SetFieldPeerAlive& action) const {
        constexpr std::array<const char*, 4> NAMES{"M5", "PFS", "MS", "ECMWFSim"};
        return Turn{NAMES[static_cast<std::size_t>(action.peer)], Leg::Field, !action.alive};
    }
    std::optional<Turn> operator()(const SetCameraSilent& action) const {
        const CameraSettings* wfs = scenario.Wfs();
        const bool is_wfs = wfs != nullptr && wfs->camera == action.camera;
        return Turn{vosk::to_string(action.camera), is_wfs ? Leg::Gpao : Leg::Field, action.silent};
    }
    template <class Other>
    std::optional<Turn> operator()(const Other&) const {
        return std::nullopt;
    }
};

}  // namespace

std::vector<Outage> OutagesOf(const Scenario& scenario) {
    std::vector<Outage> outages;
    const double end = scenario.duration.count();
    for (const Step& step : scenario.steps) {
        const auto turn = std::visit(TurnOf{scenario}, step.action);
        if (!turn) continue;
        const auto open = std::find_if(outages.begin(), outages.end(), [&](const Outage& outage) {
            return outage.who == turn->who && outage.to == end;
        });
        if (turn->away && open == outages.end())
            outages.push_back({turn->who, turn->leg, step.at.count(), end});
        else if (!turn->away && open != outages.end())
            open->to = step.at.count();
    }
    return outages;
}

bool HangsOn(Leg leg, defs::VoskControlMode mode, bool tip_tilt) {
    const bool is_ins = defs::IsInsDriven(mode);
    switch (leg) {
        case Leg::Field:
            return tip_tilt;
        case Leg::Gpao:
            return !is_ins && (!tip_tilt || mode == defs::VoskControlMode::TEL_DRIVEN_WITH_GPAO_TT);
        case Leg::Instrument:
            return is_ins;
        case Leg::M4:
            return true;
    }
    return true;
}

std::vector<ClosedStretch> ClosedStretches(const std::vector<Outage>& outages, defs::VoskControlMode mode,
                                           bool tip_tilt, ClosedStretch whole) {
    std::vector<ClosedStretch> stretches{std::move(whole)};
    for (const Outage& outage : outages) {
        ClosedStretch& last = stretches.back();
        if (!HangsOn(outage.leg, mode, tip_tilt) || outage.from >= last.end || outage.to <= last.begin)
            continue;
        ClosedStretch rest{outage.to, last.end, outage.who};
        last.end = outage.from;
        stretches.push_back(std::move(rest));
    }
    std::erase_if(stretches, [](const ClosedStretch& stretch) { return stretch.begin >= stretch.end; });
    return stretches;
}

}  // namespace vosk::rig
