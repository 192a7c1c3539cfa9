#pragma once

// What one run of the bench telescope does: how the host is set up, how its peers behave, what happens when,
// and what must hold in the end. Read once from a YAML file, constant afterwards.

#include "gpaoSettings.hpp"
#include "streamSettings.hpp"

#include <vosk/defs/controlMode.hpp>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace vosk::rig {

using Seconds = std::chrono::duration<double>;

struct HostSettings {
    std::uint32_t managed_modes = 200;
    std::uint32_t gpao_highest_mode = 52;
    bool delta_scaling = true;
    bool busy = false;
    // Under SCHED_FIFO, where the system grants it; the peers stand above. 0: all of them ordinary.
    int priority = 10;

    int PeerPriority() const { return priority > 0 ? priority + 10 : 0; }
    std::chrono::microseconds m4_send_delay{1200};
    std::chrono::microseconds m4_response_timeout{500};
};

struct InstrumentSettings {
    double rate = 500.0;  // commands a second
    double noise = 0.02;  // rms of the noise in the lowest modes; the shapes have an rms near 0.5 there
    std::chrono::milliseconds drift_period{4000};  // of the slowest shape
};

struct M4Settings {
    std::chrono::microseconds answer_delay{50};  // from the arrival of a setpoint to its answer
    double feedback_rate = 100.0;                // samples a second
};

// The four streams that tell the instrument what the telescope did, in the order in which they leave.
struct AoStreamSettings {
    std::array<std::chrono::microseconds, 4> delays{};  // from the time stamp of a command, ascending
    // A sample later than this is an exception; so is one with data older than this where there is newer.
    std::chrono::microseconds margin{2000};
};

// The turbulent atmosphere in front of the cameras, and the wind's grip on the telescope.
struct LightSettings {
    double d_over_r0 = 5.0;  // telescope's diameter over Fried's parameter
    double v_over_d = 10.0;  // wind over diameter, a second: the knee of tip and tilt lies at 0.6 of it
    double shake_frequency = 14.0;  // of tip and tilt, hertz
    double shake_damping = 0.02;
    double shake_rms = 0.4;  // radians
};

// The mirrors in front of the cameras, and the instrument behind M4. With them the light is that of the sky
// less what M4, M5 and MS did.
struct TelescopeSettings {
    std::chrono::milliseconds m4_lag{2};  // time constants with which the mirrors follow
    std::chrono::milliseconds ms_lag{200};
    // From an exposure to M4's setpoint, under the telescope's control: behind the output's turn in the
    // interval of field stabilisation, and what AoTasks needs. Each interval has one exposure.
    std::chrono::microseconds m4_offset{15000};
    double instrument_gain = 0.3;  // of its integrator, in each mode
    double instrument_leak = 0.995;
    double max_loop_error = 0.06;  // rms of residual less its prediction, as a share of the prediction
    double min_rejection = 1.5;    // rms of the light over that of the residual
};

enum class CameraKind { LisaWfs, Lisa, Marana, Alice };

// A rectangle of a sensor, in pixels.
struct PixelWindow {
    std::uint32_t x = 0;
    std::uint32_t y = 0;
    std::uint32_t width = 0;
    std::uint32_t height = 0;

    friend bool operator==(const PixelWindow&, const PixelWindow&) = default;
};

struct CameraSettings {
    defs::Camera camera = defs::Camera::WFS_GP1;
    CameraKind kind = CameraKind::LisaWfs;
    double rate = 50.0;                        // frames a second
    std::chrono::microseconds transfer{4000};  // from the first packet of a frame to the last
    double pixels_per_radian = 0.3;            // by which a tip or tilt of this rms moves a spot
    std::size_t ring = 0;            // so many frames, rendered ahead and sent over and over; 0: each is new
    std::size_t subapertures = 700;  // of a wavefront sensor
    std::uint32_t workers = 1;       // of the host, for a wavefront sensor
    PixelWindow window;              // that a MARANA reads out at first
    std::array<std::uint32_t, 2> reference{};  // of an imaging camera's star, pixels; and the box about it
    std::array<std::uint32_t, 2> box{40, 40};

    std::chrono::nanoseconds Period() const;
};

// Those of the cameras are in the order of defs::Camera.
enum class Stream {
    WavefrontCommand,
    SetpointApplied,
    Feedback,
    ImgGp1,
    ImgGp2,
    ImgGp3,
    ImgPds,
    WfsGp1,
    WfsGp2,
    WfsGp3,
    WfsPds,
    M5Position,
    PfsMeasurement,
    EcmwfSim
};

constexpr Stream StreamOf(defs::Camera camera) {
    return static_cast<Stream>(static_cast<int>(Stream::ImgGp1) + static_cast<int>(camera));
}

constexpr bool IsOfCamera(Stream stream) {
    return stream >= Stream::ImgGp1 && stream <= Stream::WfsPds;
}
// Of the peers of field stabilisation: a record in one packet.
constexpr bool IsRecordStream(Stream stream) {
    return stream >= Stream::M5Position && stream <= Stream::EcmwfSim;
}

// What befalls a sample on its way to the host.
enum class FaultKind {
    Drop,           // one of its packets vanishes
    Duplicate,      // one of its packets arrives twice
    Reorder,        // two of its packets change places; a sample of one packet leaves behind the next one
    Delay,          // the whole sample leaves later
    WrongSampleId,  // the whole sample carries another ID
    Corrupt,        // one byte of one packet is changed
    Truncate,       // one packet is cut short
    BadStatus,      // the status byte of a frame is not 0
    WrongDataType,  // a MARANA's leader tells another data type
    WrongWindow,    // a MARANA's leader tells a window that leaves the sensor
};
inline constexpr std::size_t FAULT_KINDS = 10;

struct FaultRule {
    Stream stream = Stream::WavefrontCommand;
    FaultKind kind = FaultKind::Drop;
    double share = 0.0;                  // of the stream's samples, 0 to 1
    std::chrono::microseconds delay{0};  // of kind Delay only, above 0
    Seconds from{0.0};
    Seconds to{1e9};
};

enum class FlowgraphKind { FieldStabilisation, Gpao };
enum class FieldPeer { M5, Pfs, Ms, EcmwfSim };

// The steps of a scenario, each at its time after the first command.
struct SetMode {
    defs::VoskControlMode mode;
};
struct SetM4Alive {
    bool alive;
};
struct SetCommandsValid {
    bool valid;
};
struct SetInstrumentSilent {
    bool silent;
};
struct SetFlowgraphAlive {
    FlowgraphKind kind;
    bool alive;
};
struct SetFieldPeerAlive {
    FieldPeer peer;
    bool alive;
};
struct StopHost {};
struct SetCameraSilent {
    defs::Camera camera;
    bool silent;
};
struct SetCameraRate {
    defs::Camera camera;
    double rate;
};
struct SetCameraWindow {
    defs::Camera camera;
    PixelWindow window;
};
// Commands to the host, for the imaging cameras.
struct SetCentroiding {
    std::uint32_t option;  // 1 TSH, 2 NBR, 3 COG
    double threshold;
    std::uint32_t nbrightest;
};
struct SetReference {
    std::array<std::uint32_t, 2> reference;
    std::array<std::uint32_t, 2> box;
};
// Of the guide probes.
struct SetCentering {
    bool on;
};

using StepAction = std::variant<SetMode, SetM4Alive, SetCommandsValid, SetInstrumentSilent, SetFlowgraphAlive,
                                SetFieldPeerAlive, StopHost, SetCameraSilent, SetCameraRate, SetCameraWindow,
                                SetCentroiding, SetReference, SetCentering>;

struct Step {
    Seconds at{0.0};
    StepAction action;
};

struct Expectation {
    double max_exceptions = 0.01;  // share of the valid commands under INS control
    // A setpoint that reaches M4 later than this after its planned time is an exception. A quarter of a
    // period at 500 Hz; what M4 needs to answer is left of a time-out of 800 us.
    std::chrono::microseconds send_margin{500};
    // Within this time after M4 came back, setpoints are right and answered again; and the loop of field
    // stabilisation has closed after a peer of its own came back.
    std::chrono::milliseconds recovery{100};
    std::chrono::milliseconds host_stop{3000};  // from the request to the end of the host's process
    std::uint64_t min_setpoints = 1;
};

// That M4 can hold back at a time.
inline constexpr int ANSWERS_KEPT = 7;

struct Scenario {
    std::string name;
    std::string description;
    Seconds duration{20.0};
    std::uint64_t seed = 1;
    HostSettings host;
    InstrumentSettings instrument;
    M4Settings m4;
    bool ao_loop = true;                         // instrument and M4 are there
    std::optional<AoStreamSettings> ao_streams;  // where somebody listens to them
    LightSettings light;
    std::vector<CameraSettings> cameras;
    std::optional<TelescopeSettings> telescope;
    std::optional<StreamSettings> streams;  // field stabilisation and its peers, if they are there
    std::optional<GpaoSettings> gpao;       // its flowgraph, if it is there
    std::vector<FaultRule> faults;
    std::vector<Step> steps;  // in order of time
    Expectation expect;

    std::chrono::nanoseconds CommandPeriod() const;
    // The first wavefront sensor among the cameras, whose coefficients GPAO gets; null if there is none.
    const CameraSettings* Wfs() const;
    std::chrono::nanoseconds FeedbackPeriod() const;
    // At most, for logs that are sized before the run.
    std::size_t ExpectedCommands() const;
    std::size_t ExpectedSetpoints() const;
    std::size_t LoopSamples() const;  // of field stabilisation, likewise
    // For how long setpoints are due: host and M4 are there, and the instrument has control and sends valid
    // commands, or a telescope has it.
    Seconds TimeWithSetpoints() const;
    // Another length. As many setpoints less are expected as their time is shorter. Throws std::runtime_error
    // if none would be left to judge.
    void ChangeDuration(Seconds new_duration);
};

// Throws std::runtime_error "<file>:<line>: <what>" for a key that is unknown, of the wrong kind, or out of
// range.
Scenario LoadScenario(const std::filesystem::path& file);
Scenario ParseScenario(const std::string& text, const std::string& source);

// "500 us", "2 ms", "1.5 s", "200 ns". Throws std::invalid_argument.
std::chrono::nanoseconds ParseDuration(const std::string& text);

std::string ToString(Stream stream);
std::string ToString(FaultKind kind);
std::string ToString(const Step& step);

}  // namespace vosk::rig
