#pragma once

// Whether a camera's frames became what they should: every frame is accounted for, and each result is held
// against the light that the frame showed. Worked out after the run from what was written down.

#include "faults.hpp"
#include "judge/spotPrediction.hpp"
#include "peers/cameraRecords.hpp"
#include "runFacts.hpp"

#include <cmath>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vosk::rig {

struct CameraFacts {
    std::span<const FrameRecord> frames;
    std::span<const ResultRecord> results;
    std::optional<std::uint64_t> published;  // results of the host; nothing where it shows none
    std::uint64_t overruns = 0;              // of the rig
    std::function<std::span<const defs::Slope>(const ResultRecord&)> slopes_of;
};

// How the host finds centroids.
struct Centroiding {
    std::uint32_t option = 1;
    double threshold = 0.0;
    std::vector<SpotRegion> regions;
};

enum class FrameFate {
    Processed,  // its result was seen
    Unseen,     // processed, or the host's counts would not add up; the watch missed its result
    Refused,    // spoilt on its way, and not used
    Used,       // spoilt on its way, and used all the same
    Lost,       // whole, and without a result
};

struct FrameAccounts {
    std::vector<FrameFate> fates;  // one a frame
    std::uint64_t processed = 0;
    std::uint64_t unseen = 0;
    std::uint64_t refused = 0;
    std::uint64_t used = 0;
    std::uint64_t lost = 0;
    std::uint64_t foreign = 0;   // results of frames that were never sent, or with another exposure time
    std::uint64_t disorder = 0;  // results that came behind that of a later frame
    std::vector<std::optional<std::size_t>> frame_of;  // of each result
};

// What the host makes of a frame that met with this on its way: nothing, if so. Status bytes of an ALICE are
// not looked at.
bool SpoilsFrame(FaultKind kind, CameraKind camera);

FrameAccounts AccountForFrames(const CameraFacts& facts, CameraKind camera);

// All that is wrong, in words.
std::vector<std::string> JudgeFrames(const std::string& name, CameraKind kind, const CameraFacts& facts,
                                     const FrameAccounts& accounts, const RunFacts& run,
                                     double max_exceptions);

// How far results are from the light, one value an axis.
struct SpotErrors {
    std::vector<double> time;  // of each result, seconds after the start
    std::vector<double> rms;   // of all its spots against the light, pixels
    std::vector<double> tip;   // mean of all spots, measured and true
    std::vector<double> tilt;
    std::vector<double> true_tip;
    std::vector<double> true_tilt;
    std::vector<double> error_x;  // of some spots, for a picture
    std::vector<double> error_y;
    std::uint64_t values = 0;       // that theory predicts
    std::uint64_t distinct = 0;     // of them; a ring shows the same noise again and again
    double squares = 0.0;           // of errors in units of the noise
    double error_squares = 0.0;     // against the light
    double expected_squares = 0.0;  // the same as theory has it
    std::uint64_t outliers = 0;     // beyond 7 times the noise
    std::uint64_t repaired = 0;     // spots in regions with a bad pixel
    double repaired_worst = 0.0;
    std::uint64_t unpredicted = 0;  // of a method without a theory here
    double unpredicted_worst = 0.0;
    std::uint64_t wrong_counts = 0;  // results with another number of spots
    std::uint64_t strangers = 0;     // centroids of a report that fit no frame

    double InNoise() const { return values == 0 ? 0.0 : std::sqrt(squares / static_cast<double>(values)); }
};

// The method that a frame's result was found with: the latest one that was told before the frame was whole.
// Null while it was being changed: told before the result was seen, but not confirmed before the frame was
// whole.
class MethodTimeline {
public:
    // `commands` those of the run if they concern this camera.
    MethodTimeline(const CameraScene& scene, std::span<const HostCommand> commands);

    const Centroiding* Find(time_point whole, time_point seen) const;

private:
    struct Period {
        time_point asked;
        time_point done;
        Centroiding centroiding;
    };
    std::vector<Period> m_periods;
};

SpotErrors MeasureErrors(const CameraFacts& facts, const FrameAccounts& accounts, const CameraScene& scene,
                         const MethodTimeline& methods, time_point start);
// The same for a camera of which only the host's own report of its latest centroid is known: it must be that
// of one of the frames that were just sent.
SpotErrors MeasureLooks(const CameraFacts& facts, const CameraScene& scene, const MethodTimeline& methods,
                        std::span<const CameraLook> looks, time_point start);

std::vector<std::string> JudgeErrors(const std::string& name, const SpotErrors& errors);

}  // namespace vosk::rig
