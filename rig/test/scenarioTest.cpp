#include "judge/outages.hpp"
#include "scenario.hpp"

#include <fmt/format.h>
#include <vosk/test/support.hpp>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;
using namespace testing;

TEST(Scenario, IsRefusedWithPlaceAndReason) {
    const std::pair<const char*, const char*> cases[] = {
        {"seconds: 3", "needs a 'name'"},
        {"[1, 2]", "no map"},
        {"name: x\nhost: 3", "a map of keys is expected"},
        {"name: x\nsecond: 3", "2: unknown key 'second'"},
        {"name: x\nhost: {modes: 3}", "unknown key 'host.modes'"},
        {"name: x\nhost: {m4_send_delay: 1200}", "\"500 us\""},
        {"name: x\ninstrument: {rate: 0}", "must lie between"},
        {"name: x\nfaults: [{stream: m5, kind: drop}]", "'stream' can't be 'm5'"},
        {"name: x\ninstrument: {rate: 500}\nfaults: [{stream: wavefront_command, kind: delay, delay: 2 ms}]",
         "whole period"},
        {"name: x\nm4: {feedback_rate: 100}\nfaults: [{stream: feedback, kind: delay, delay: 10 ms}]",
         "whole period"},
        {"name: x\nfaults: [{stream: setpoint_applied, kind: delay, delay: 14 ms}]", "7 periods"},
        {"name: x\nfaults: [{stream: feedback, kind: delay}]", "'delay' above 0"},
        {"name: x\nfaults: [{stream: feedback, kind: drop, delay: 1 ms}]", "'delay' above 0"},
        {"name: x\nsteps: [{mode: TEL_DRIVEN}]", "needs 'at'"},
        {"name: x\nsteps: [{at: 1}]", "exactly one of"},
        {"name: x\nsteps: [{at: 1, m4: dead, host: stop}]", "exactly one of"},
        {"name: x\nsteps: [{at: 1, mode: FAST}]", "no control mode 'FAST'"},
        {"name: x\ncameras: [{camera: IMG_GP1, kind: lisa}]\ngpao: {gain: 0.3}", "needs a wavefront sensor"},
        {"name: x\ninstrument: {rate: 50}\ncameras: [{camera: WFS_GP1, kind: lisa_wfs, rate: 50}, {camera: "
         "IMG_GP1, "
         "kind: alice, rate: 25}]\nstreams: {interval: 20 ms}\ngpao: {gain: 0.3}\ntelescope: {m4_lag: 2 ms}",
         "frames of IMG_GP1 at one per 'interval' of 'streams', 50 a second"},
        {"name: [x", "file.yaml:"}};
    for (const auto& [text, complaint] : cases) {
        EXPECT_THAT(test::TextOf<std::runtime_error>([text = text] { ParseScenario(text, "file.yaml"); }),
                    AllOf(HasSubstr("file.yaml:"), HasSubstr(complaint)));
    }
}

TEST(Scenario, ExpectsOfAnotherLengthWhatIsDueInIt) {
    const Scenario whole = ParseScenario(R"({name: x, seconds: 10, expect: {min_setpoints: 700}, steps: [
        {at: 2, mode: INS_DRIVEN_CASCADE}, {at: 5, m4: dead}, {at: 6, m4: alive}]})",
                                         "test");
    Scenario cut = whole;
    cut.ChangeDuration(4s);
    EXPECT_EQ(cut.expect.min_setpoints, 200U);
    cut.ChangeDuration(20s);
    EXPECT_EQ(cut.expect.min_setpoints, 1700U);
    cut = whole;
    cut.expect.min_setpoints = 1;
    cut.ChangeDuration(4s);
    EXPECT_EQ(cut.expect.min_setpoints, 1U);
    EXPECT_THROW(cut.ChangeDuration(2s), std::runtime_error);
}

TEST(Outages, LeaveTheStretchesInWhichALoopIsWhole) {
    using defs::VoskControlMode;
    const Scenario scenario = ParseScenario(R"({name: x, seconds: 50,
        cameras: [{camera: WFS_GP1, kind: lisa_wfs}, {camera: IMG_GP1, kind: alice}], steps: [
        {at: 5, m5: dead}, {at: 8, m5: alive}, {at: 6, flowgraph: dead}, {at: 7, flowgraph: alive},
        {at: 12, camera: WFS_GP1, stream: silent}, {at: 14, camera: WFS_GP1, stream: sending},
        {at: 18, instrument: silent}, {at: 22, instrument: sending}, {at: 25, m4: dead}, {at: 27, m4: alive},
        {at: 26, camera: IMG_GP1, stream: silent}, {at: 28, camera: IMG_GP1, stream: sending},
        {at: 45, gpao_flowgraph: dead}]})",
                                            "test");
    struct Case {
        VoskControlMode mode;
        bool tip_tilt;
        double begin;
        double end;
        std::string stretches;
    };
    const std::vector<Case> cases{
        {VoskControlMode::TEL_DRIVEN, true, 0, 20, "0-5 8-20 M5 "},
        {VoskControlMode::TEL_DRIVEN, false, 0, 20, "0-12 14-20 WFS_GP1 "},
        {VoskControlMode::TEL_DRIVEN_WITH_GPAO_TT, true, 0, 20, "0-5 8-12 M5 14-20 WFS_GP1 "},
        {VoskControlMode::INS_DRIVEN_CASCADE, true, 20, 40, "22-25 the instrument 28-40 IMG_GP1 "},
        {VoskControlMode::INS_DRIVEN_SEQUENTIAL, false, 20, 40, "22-25 the instrument 27-40 M4 "},
        {VoskControlMode::TEL_DRIVEN, false, 40, 50, "40-45 "}};
    for (const Case& each : cases) {
        std::string found;
        for (const ClosedStretch& stretch :
             ClosedStretches(OutagesOf(scenario), each.mode, each.tip_tilt, {each.begin, each.end, {}}))
            found += fmt::format("{:g}-{:g} {}{}", stretch.begin, stretch.end, stretch.after,
                                 stretch.after.empty() ? "" : " ");
        EXPECT_EQ(found, each.stretches);
    }
}

}  // namespace
}  // namespace vosk::rig
