#include "scenario.hpp"

#include "scenarioCameras.hpp"
#include "scenarioSteps.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace vosk::rig {
namespace {

using Document = oru::configng::PliConfigDocument;

constexpr std::array<std::pair<const char*, Stream>, 14> STREAMS{
    {{"wavefront_command", Stream::WavefrontCommand},
     {"setpoint_applied", Stream::SetpointApplied},
     {"feedback", Stream::Feedback},
     {"IMG_GP1", Stream::ImgGp1},
     {"IMG_GP2", Stream::ImgGp2},
     {"IMG_GP3", Stream::ImgGp3},
     {"IMG_PDS", Stream::ImgPds},
     {"WFS_GP1", Stream::WfsGp1},
     {"WFS_GP2", Stream::WfsGp2},
     {"WFS_GP3", Stream::WfsGp3},
     {"WFS_PDS", Stream::WfsPds},
     {"m5_position", Stream::M5Position},
     {"pfs_measurement", Stream::PfsMeasurement},
     {"ecmwfsim", Stream::EcmwfSim}}};

constexpr std::array<std::pair<const char*, FaultKind>, FAULT_KINDS> KINDS{
    {{"drop", FaultKind::Drop},
     {"duplicate", FaultKind::Duplicate},
     {"reorder", FaultKind::Reorder},
     {"delay", FaultKind::Delay},
     {"wrong_sample_id", FaultKind::WrongSampleId},
     {"corrupt", FaultKind::Corrupt},
     {"truncate", FaultKind::Truncate},
     {"bad_status", FaultKind::BadStatus},
     {"wrong_data_type", FaultKind::WrongDataType},
     {"wrong_window", FaultKind::WrongWindow}}};

void ReadHost(const Section& section, HostSettings& host) {
    section.ReadInRange("managed_modes", host.managed_modes, 2U, 4866U);
    section.ReadInRange("gpao_highest_mode", host.gpao_highest_mode, 3U, 52U);
    section.Read("delta_scaling", host.delta_scaling);
    section.Read("busy", host.busy);
    if (host.busy) host.priority = 0;  // threads that spin at a priority leave a small machine nothing
    section.ReadInRange("priority", host.priority, 0, 80);
    section.ReadDuration("m4_send_delay", host.m4_send_delay);
    section.ReadDuration("m4_response_timeout", host.m4_response_timeout);
}

void ReadInstrument(const Section& section, InstrumentSettings& instrument) {
    section.ReadInRange("rate", instrument.rate, 1.0, 5000.0);
    section.ReadInRange("noise", instrument.noise, 0.0, 1.0);
    section.ReadDuration("drift_period", instrument.drift_period);
    if (instrument.drift_period < std::chrono::milliseconds{10})
        section.Fail("'drift_period' is below 10 ms");
}

void ReadM4(const Section& section, M4Settings& m4) {
    section.ReadDuration("answer_delay", m4.answer_delay);
    section.ReadInRange("feedback_rate", m4.feedback_rate, 1.0, 2000.0);
}

void ReadLight(const Section& section, LightSettings& light) {
    section.ReadInRange("d_over_r0", light.d_over_r0, 0.0, 100.0);
    section.ReadInRange("v_over_d", light.v_over_d, 0.1, 100.0);
    section.ReadInRange("shake_frequency", light.shake_frequency, 0.1, 200.0);
    section.ReadInRange("shake_damping", light.shake_damping, 0.001, 0.9);
    section.ReadInRange("shake_rms", light.shake_rms, 0.0, 10.0);
}

StreamSettings ReadStreams(const Section& section) {
    StreamSettings streams;
    section.ReadDuration("interval", streams.interval);
    if (streams.interval.count() < 1) section.Fail("'interval' is below 1 ms");
    section.ReadInRange("gain", streams.gain, 0.0, 2.0);
    section.ReadInRange("leak", streams.leak, 0.0, 1.0);
    section.ReadInRange("m5_share", streams.m5_share, -1.0, 1.0);
    section.ReadInRange("ms_share", streams.ms_share, -1.0, 1.0);
    section.ReadInRange("u4_share", streams.u4_share, -1.0, 1.0);
    section.ReadDuration("m5_lag", streams.m5_lag);
    if (streams.m5_lag.count() < 1) section.Fail("'m5_lag' is below 1 ms");
    section.ReadInRange("disturbance", streams.disturbance, 0.0, 1e3);
    section.ReadInRange("noise", streams.noise, 0.0, 1e3);
    section.ReadDuration("margin", streams.margin);
    section.ReadInRange("max_loop_error", streams.max_loop_error, 0.0, 10.0);
    section.ReadInRange("min_rejection", streams.min_rejection, 0.0, 1e3);
    return streams;
}

GpaoSettings ReadGpao(const Section& section, const Scenario& scenario) {
    if (scenario.Wfs() == nullptr) section.Fail("'gpao' needs a wavefront sensor among the cameras");
    if (scenario.Wfs()->pixels_per_radian <= 0.0)
        section.Fail("'gpao' needs a wavefront sensor with 'pixels_per_radian' above 0");
    GpaoSettings gpao;
    section.ReadInRange("gain", gpao.gain, 0.0, 2.0);
    gpao.tt_gain = gpao.gain;
    section.ReadInRange("tt_gain", gpao.tt_gain, 0.0, 2.0);
    section.ReadInRange("leak", gpao.leak, 0.0, 1.0);
    section.ReadDuration("margin", gpao.margin);
    return gpao;
}

// By default the first two leave ahead of the setpoint, and the others behind the answer to it.
AoStreamSettings ReadAoStreams(const Section& section, const Scenario& scenario) {
    if (!scenario.ao_loop) section.Fail("'ao_streams' need the AO loop, which has an instrument");
    const auto period = std::chrono::duration_cast<std::chrono::microseconds>(scenario.CommandPeriod());
    AoStreamSettings streams{{period / 8, period * 2 / 8, period * 6 / 8, period * 7 / 8}};
    section.ReadDurations("delays", streams.delays);
    section.ReadDuration("margin", streams.margin);
    if (!std::is_sorted(streams.delays.begin(), streams.delays.end()) || streams.delays.back() >= period)
        section.Fail("'delays' must ascend and stay below the period of the commands");
    return streams;
}

TelescopeSettings ReadTelescope(const Section& section) {
    TelescopeSettings telescope;
    section.ReadDuration("m4_lag", telescope.m4_lag);
    section.ReadDuration("ms_lag", telescope.ms_lag);
    if (telescope.m4_lag.count() < 1 || telescope.ms_lag.count() < 1)
        section.Fail("the lags of mirrors are 1 ms or more");
    section.ReadDuration("m4_offset", telescope.m4_offset);
    section.ReadInRange("max_loop_error", telescope.max_loop_error, 0.0, 10.0);
    section.ReadInRange("min_rejection", telescope.min_rejection, 0.0, 1e3);
    section.ReadInRange("instrument_gain", telescope.instrument_gain, 0.0, 2.0);
    section.ReadInRange("instrument_leak", telescope.instrument_leak, 0.0, 1.0);
    return telescope;
}

// The cameras tell the errors in pixels, and those that are not there tell zero.
double ErrorScaleOf(const Section& root, const Scenario& scenario) {
    double pixels_per_radian = 0.0;
    for (const CameraSettings& camera : scenario.cameras)
        if (camera.kind != CameraKind::LisaWfs) pixels_per_radian += camera.pixels_per_radian;
    if (pixels_per_radian <= 0.0 || !scenario.streams || !scenario.gpao)
        root.Fail("a telescope needs 'streams', 'gpao' and an imaging camera");
    return 4.0 / pixels_per_radian;
}

// The judge of the loops counts one exposure and one command in each interval of field stabilisation, and
// setpoints that leave between the flowgraph's answer and the next exposure.
void RefuseOtherRates(const Section& section, const Scenario& scenario) {
    const std::chrono::nanoseconds interval = scenario.streams->interval;
    const auto refuse = [&](bool is_other, const std::string& who) {
        if (is_other)
            section.Fail(fmt::format("a telescope needs {} at one per 'interval' of 'streams', {:g} a second",
                                     who, 1.0 / Seconds{interval}.count()));
    };
    refuse(scenario.CommandPeriod() != interval, "the instrument's commands");
    for (const CameraSettings& camera : scenario.cameras)
        refuse(camera.Period() != interval, "frames of " + vosk::to_string(camera.camera));
    const auto offset = scenario.telescope->m4_offset;
    if (offset <= scenario.streams->OutputOffset() || offset >= interval)
        section.Fail("'m4_offset' must lie in the second half of the 'interval' of 'streams'");
    // A cycle that is late once begins behind the answer of the one before: it must not plan an interval
    // ahead, or all that follow stay late.
    if (offset + scenario.host.m4_send_delay >= interval)
        section.Fail(
            "'m4_offset' and 'm4_send_delay' together must be shorter than the 'interval' of 'streams'");
}

FaultRule ReadFault(const Section& section) {
    FaultRule rule;
    section.ReadName("stream", STREAMS, rule.stream);
    section.ReadName("kind", KINDS, rule.kind);
    section.ReadInRange("share", rule.share, 0.0, 1.0);
    section.ReadDuration("delay", rule.delay);
    if ((rule.kind == FaultKind::Delay) != (rule.delay.count() > 0))
        section.Fail("a 'delay' above 0 goes with 'kind: delay', and with no other");
    if (IsRecordStream(rule.stream) && rule.kind >= FaultKind::BadStatus)
        section.Fail(fmt::format("'kind: {}' goes with cameras", ToString(rule.kind)));
    section.ReadSeconds("from", rule.from);
    section.ReadSeconds("to", rule.to);
    return rule;
}

void ReadExpectation(const Section& section, Expectation& expect) {
    section.ReadInRange("max_exceptions", expect.max_exceptions, 0.0, 1.0);
    section.ReadDuration("send_margin", expect.send_margin);
    section.ReadDuration("recovery", expect.recovery);
    section.ReadDuration("host_stop", expect.host_stop);
    section.Read("min_setpoints", expect.min_setpoints);
}

// A sample that leaves later must not hold up the next one; of answers M4 keeps a few.
std::chrono::nanoseconds DelayLimit(const Scenario& scenario, Stream stream) {
    switch (stream) {
        case Stream::SetpointApplied:
            return ANSWERS_KEPT * scenario.CommandPeriod() - scenario.m4.answer_delay;
        case Stream::Feedback:
            return scenario.FeedbackPeriod();
        case Stream::M5Position:
            return scenario.streams->interval / 2;
        case Stream::PfsMeasurement:
        case Stream::EcmwfSim:
            return scenario.streams->interval;
        default:
            return scenario.CommandPeriod();
    }
}

void RefuseImpossibleDelays(const Section& root, const Scenario& scenario) {
    for (const FaultRule& rule : scenario.faults) {
        if (IsOfCamera(rule.stream)) continue;  // a frame that leaves later holds up those behind it
        if (IsRecordStream(rule.stream) && !scenario.streams)
            root.Fail(fmt::format("faults of {} need 'streams'", ToString(rule.stream)));
        if (rule.delay >= DelayLimit(scenario, rule.stream))
            root.Fail(fmt::format("a delay of {} must be shorter than {}", ToString(rule.stream),
                                  rule.stream == Stream::SetpointApplied
                                      ? fmt::format("{} periods of the commands", ANSWERS_KEPT)
                                      : "its whole period"));
    }
}

Scenario ReadScenario(const Document& document) {
    const Section root(document.Instances());
    Scenario scenario;
    root.Read("name", scenario.name);
    if (scenario.name.empty()) root.Fail("a scenario needs a 'name'");
    root.Read("description", scenario.description);
    root.ReadSeconds("seconds", scenario.duration);
    root.Read("seed", scenario.seed);
    root.ReadSection("host", [&](const Section& section) { ReadHost(section, scenario.host); });
    root.ReadSection("instrument",
                     [&](const Section& section) { ReadInstrument(section, scenario.instrument); });
    root.ReadSection("m4", [&](const Section& section) { ReadM4(section, scenario.m4); });
    root.ReadSection("light", [&](const Section& section) { ReadLight(section, scenario.light); });
    root.ReadList("cameras",
                  [&](const Section& section) { scenario.cameras.push_back(ReadCamera(section)); });
    const bool has_other_loops = root.Has("streams") || !scenario.cameras.empty();
    scenario.ao_loop =
        root.Has("telescope") || !has_other_loops || (!root.Has("streams") && root.Has("instrument"));
    root.ReadSection("streams", [&](const Section& section) { scenario.streams = ReadStreams(section); });
    root.ReadSection("gpao", [&](const Section& section) { scenario.gpao = ReadGpao(section, scenario); });
    root.ReadSection("ao_streams",
                     [&](const Section& section) { scenario.ao_streams = ReadAoStreams(section, scenario); });
    root.ReadSection("telescope", [&](const Section& section) {
        scenario.telescope = ReadTelescope(section);
        const double error_scale = ErrorScaleOf(section, scenario);
        scenario.streams->error_scale = error_scale;
        RefuseOtherRates(section, scenario);
    });
    root.ReadList("faults", [&](const Section& section) { scenario.faults.push_back(ReadFault(section)); });
    root.ReadList("steps", [&](const Section& section) { scenario.steps.push_back(ReadStep(section)); });
    root.ReadSection("expect", [&](const Section& section) { ReadExpectation(section, scenario.expect); });
    if (const auto unread = UnreadKeys(document); !unread.empty())
        throw oru::configng::PliConfigError(fmt::format("unknown key '{}'", unread.front().path),
                                            fmt::format("{}:{}", unread.front().file, unread.front().line));
    RefuseImpossibleDelays(root, scenario);
    std::stable_sort(scenario.steps.begin(), scenario.steps.end(),
                     [](const Step& left, const Step& right) { return left.at < right.at; });
    return scenario;
}

template <class MakeDocument>
Scenario Read(MakeDocument make_document) {
    try {
        return ReadScenario(make_document());
    } catch (const oru::configng::PliConfigDocumentError&) {
        throw;  // its text says where
    } catch (const oru::configng::PliConfigError& error) {
        throw std::runtime_error(fmt::format("{}: {}", error.Where(), error.what()));
    }
}

}  // namespace

const CameraSettings* Scenario::Wfs() const {
    const auto found = std::find_if(cameras.begin(), cameras.end(), [](const CameraSettings& camera) {
        return camera.kind == CameraKind::LisaWfs;
    });
    return found == cameras.end() ? nullptr : &*found;
}

std::chrono::nanoseconds Scenario::CommandPeriod() const {
    return std::chrono::nanoseconds{std::llround(1e9 / instrument.rate)};
}

std::chrono::nanoseconds Scenario::FeedbackPeriod() const {
    return std::chrono::nanoseconds{std::llround(1e9 / m4.feedback_rate)};
}

std::chrono::nanoseconds CameraSettings::Period() const {
    return std::chrono::nanoseconds{std::llround(1e9 / rate)};
}

std::size_t Scenario::ExpectedCommands() const {
    return static_cast<std::size_t>(instrument.rate * duration.count()) + 16;
}

std::size_t Scenario::ExpectedSetpoints() const {
    return ExpectedCommands() + (telescope ? LoopSamples() : 0);
}

std::size_t Scenario::LoopSamples() const {
    // The host repeats commands, and peers may live a little longer.
    return static_cast<std::size_t>(4.0 * (duration + Seconds{10.0}) / streams->interval);
}

Seconds Scenario::TimeWithSetpoints() const {
    struct Conditions {
        bool has_telescope;  // which commands M4 where the instrument does not
        bool ins = false;
        bool valid = true;
        bool sending = true;
        bool alive = true;
        bool running = true;

        void operator()(const SetMode& action) { ins = defs::IsInsDriven(action.mode); }
        void operator()(const SetM4Alive& action) { alive = action.alive; }
        void operator()(const SetCommandsValid& action) { valid = action.valid; }
        void operator()(const SetInstrumentSilent& action) { sending = !action.silent; }
        void operator()(const StopHost&) { running = false; }
        bool AllHold() const { return alive && running && (ins ? valid && sending : has_telescope); }
    } conditions{telescope.has_value()};
    Seconds total{0.0};
    Seconds since{0.0};
    const auto advance = [&](Seconds to) {
        if (conditions.AllHold()) total += to - since;
        since = to;
    };
    for (const Step& step : steps) {
        if (step.at >= duration) break;
        advance(step.at);
        // Steps of cameras are none of its business.
        const auto apply = [&](const auto& action) {
            if constexpr (requires { conditions(action); }) conditions(action);
        };
        std::visit(apply, step.action);
    }
    advance(duration);
    return total;
}

void Scenario::ChangeDuration(Seconds new_duration) {
    const Seconds before = TimeWithSetpoints();
    duration = new_duration;
    const Seconds after = TimeWithSetpoints();
    if (before.count() <= 0.0) return;
    if (after.count() <= 0.0)
        throw std::runtime_error(
            fmt::format("scenario {}: no setpoint is due in the first {:g} s; let it run longer", name,
                        duration.count()));
    if (expect.min_setpoints == 0) return;
    const double scaled = static_cast<double>(expect.min_setpoints) * (after / before);
    expect.min_setpoints = std::max<std::uint64_t>(1, static_cast<std::uint64_t>(scaled));
}

Scenario ParseScenario(const std::string& text, const std::string& source) {
    return Read([&] { return Document::FromText(text, source); });
}

Scenario LoadScenario(const std::filesystem::path& file) {
    return Read([&] { return Document::FromFile(file.string()); });
}

std::chrono::nanoseconds ParseDuration(const std::string& text) {
    constexpr std::array<std::pair<const char*, double>, 4> UNITS{
        {{" ns", 1.0}, {" us", 1e3}, {" ms", 1e6}, {" s", 1e9}}};
    std::size_t used = 0;
    double count = -1.0;
    try {
        count = std::stod(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    for (const auto& [unit, nanoseconds] : UNITS)
        if (used > 0 && text.compare(used, std::string::npos, unit) == 0 && count >= 0.0 && count < 1e9)
            return std::chrono::nanoseconds{std::llround(count * nanoseconds)};
    throw std::invalid_argument(fmt::format("'{}' is no duration such as \"500 us\"", text));
}

std::string ToString(Stream stream) {
    return NameOf(STREAMS, stream);
}

std::string ToString(FaultKind kind) {
    return NameOf(KINDS, kind);
}

}  // namespace vosk::rig
