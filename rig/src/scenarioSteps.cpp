#include "scenarioSteps.hpp"

#include "scenarioCameras.hpp"

namespace vosk::rig {
namespace {

constexpr std::array<std::pair<const char*, std::uint32_t>, 3> METHODS{{{"tsh", 1}, {"nbr", 2}, {"cog", 3}}};

constexpr std::array<std::pair<const char*, FieldPeer>, 4> FIELD_PEERS{{{"M5", FieldPeer::M5},
                                                                        {"PFS", FieldPeer::Pfs},
                                                                        {"MS", FieldPeer::Ms},
                                                                        {"ECMWFSim", FieldPeer::EcmwfSim}}};

defs::VoskControlMode ParseMode(const Section& section, const std::string& text) {
    for (std::uint32_t value = 1; value <= 6; ++value) {
        const auto mode = static_cast<defs::VoskControlMode>(value);
        if (vosk::to_string(mode) == text) return mode;
    }
    section.Fail(fmt::format("there is no control mode '{}'", text));
}

}  // namespace

Step ReadStep(const Section& section) {
    constexpr std::array<std::pair<const char*, bool>, 2> LIFE{{{"dead", false}, {"alive", true}}};
    constexpr std::array<std::pair<const char*, bool>, 2> VALIDITY{{{"valid", true}, {"invalid", false}}};

    Step step;
    if (!section.Has("at")) section.Fail("a step needs 'at', in seconds after the first command");
    section.ReadSeconds("at", step.at);
    int actions = 0;
    if (section.Has("mode")) {
        std::string text;
        section.Read("mode", text);
        step.action = SetMode{ParseMode(section, text)};
        ++actions;
    }
    const auto read_switch = [&](const char* key, const auto& names, auto make) {
        if (!section.Has(key)) return;
        bool value = false;
        section.ReadName(key, names, value);
        step.action = make(value);
        ++actions;
    };
    read_switch("m4", LIFE, [](bool value) { return SetM4Alive{value}; });
    const auto make_life = [](FlowgraphKind kind) {
        return [kind](bool alive) { return SetFlowgraphAlive{kind, alive}; };
    };
    read_switch("flowgraph", LIFE, make_life(FlowgraphKind::FieldStabilisation));
    read_switch("gpao_flowgraph", LIFE, make_life(FlowgraphKind::Gpao));
    const auto make_peer = [](FieldPeer peer) {
        return [peer](bool alive) { return SetFieldPeerAlive{peer, alive}; };
    };
    read_switch("m5", LIFE, make_peer(FieldPeer::M5));
    read_switch("pfs", LIFE, make_peer(FieldPeer::Pfs));
    read_switch("ms", LIFE, make_peer(FieldPeer::Ms));
    read_switch("ecmwfsim", SILENCE, [](bool silent) {
        return SetFieldPeerAlive{FieldPeer::EcmwfSim, !silent};
    });
    read_switch("instrument", SILENCE, [](bool value) { return SetInstrumentSilent{value}; });
    read_switch("commands", VALIDITY, [](bool value) { return SetCommandsValid{value}; });
    constexpr std::array<std::pair<const char*, bool>, 2> SWITCH{{{"off", false}, {"on", true}}};
    read_switch("centering", SWITCH, [](bool on) { return SetCentering{on}; });
    if (section.Has("host")) {
        std::string text;
        section.Read("host", text);
        if (text != "stop") section.Fail("'host' can only be 'stop'");
        step.action = StopHost{};
        ++actions;
    }
    if (section.Has("camera")) {
        step.action = ReadCameraStep(section);
        ++actions;
    }
    if (section.Has("centroiding")) {
        SetCentroiding change{1, 0.0, 0};
        section.ReadName("centroiding", METHODS, change.option);
        section.Read("threshold", change.threshold);
        section.Read("nbrightest", change.nbrightest);
        step.action = change;
        ++actions;
    }
    if (section.Has("reference")) {
        SetReference change{{}, {40, 40}};
        section.ReadNumbers("reference", change.reference);
        ReadBox(section, change.box);
        step.action = change;
        ++actions;
    }
    if (actions != 1)
        section.Fail(
            "a step needs exactly one of 'mode', 'm4', 'flowgraph', 'gpao_flowgraph', 'm5', 'pfs', 'ms', "
            "'ecmwfsim', 'instrument', "
            "'commands', 'host', 'camera', 'centroiding', 'reference', 'centering'");
    return step;
}

std::string ToString(const Step& step) {
    struct Describe {
        std::string operator()(const SetCentering& action) const {
            return action.on ? "guide-probe centering on" : "guide-probe centering off";
        }
        std::string operator()(const SetMode& action) const { return "mode " + vosk::to_string(action.mode); }
        std::string operator()(const SetM4Alive& action) const {
            return action.alive ? "M4 returns" : "M4 dies";
        }
        std::string operator()(const SetCommandsValid& action) const {
            return action.valid ? "commands valid" : "commands invalid";
        }
        std::string operator()(const SetInstrumentSilent& action) const {
            return action.silent ? "instrument silent" : "instrument sends";
        }
        std::string operator()(const SetFlowgraphAlive& action) const {
            const bool is_gpao = action.kind == FlowgraphKind::Gpao;
            return fmt::format("{}flowgraph {}", is_gpao ? "GPAO " : "",
                               action.alive ? "starts" : "is killed");
        }
        std::string operator()(const SetFieldPeerAlive& action) const {
            return NameOf(FIELD_PEERS, action.peer) + (action.alive ? " returns" : " dies");
        }
        std::string operator()(const StopHost&) const { return "SIGTERM to the host"; }
        std::string operator()(const SetCameraSilent& action) const {
            return vosk::to_string(action.camera) + (action.silent ? " silent" : " sends");
        }
        std::string operator()(const SetCameraRate& action) const {
            return fmt::format("{} at {:g} Hz", vosk::to_string(action.camera), action.rate);
        }
        std::string operator()(const SetCameraWindow& action) const {
            const PixelWindow& window = action.window;
            return fmt::format("{} reads {} x {} at {}, {}", vosk::to_string(action.camera), window.width,
                               window.height, window.x, window.y);
        }
        std::string operator()(const SetCentroiding& action) const {
            return fmt::format("centroiding {}, threshold {:g}, {} brightest", NameOf(METHODS, action.option),
                               action.threshold, action.nbrightest);
        }
        std::string operator()(const SetReference& action) const {
            return fmt::format("reference {}, {} in a box of {} x {}", action.reference[0],
                               action.reference[1], action.box[0], action.box[1]);
        }
    };
    return std::visit(Describe{}, step.action);
}

}  // namespace vosk::rig
