#include "judge/cameraVerdict.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace vosk::rig {
namespace {

constexpr double SATURATION = 10.0;     // pixels, beyond which the host cuts a centroid
constexpr double OUTLIER = 7.0;         // in units of the noise
constexpr double APPROXIMATION = 0.02;  // of the theory; 0.006 was seen with 120 000 values
constexpr double REPAIRED_LIMIT = 1.0;
constexpr double UNPREDICTED_LIMIT = 0.6;
constexpr std::chrono::milliseconds LOOK_BACK{250};
constexpr double STRANGER = 1.0;  // pixels; more than any method's noise, less than most frames differ
constexpr std::uint32_t TSH = 1;
constexpr std::uint32_t COG = 3;
constexpr std::size_t MOST_PICTURED = 4000;

double ThresholdOf(const Centroiding& centroiding) {
    if (centroiding.option == COG) return SpotPredictor::NO_THRESHOLD;
    return centroiding.threshold;
}

double Cut(double value) {
    return std::clamp(value, -SATURATION, SATURATION);
}

}  // namespace

bool SpoilsFrame(FaultKind kind, CameraKind camera) {
    switch (kind) {
        case FaultKind::BadStatus:
            return camera != CameraKind::Alice;
        case FaultKind::WrongDataType:
        case FaultKind::WrongWindow:
            return camera == CameraKind::Marana;
        default:
            return HarmOf(kind) == Harm::Certain;
    }
}

FrameAccounts AccountForFrames(const CameraFacts& facts, CameraKind camera) {
    FrameAccounts accounts;
    std::unordered_map<defs::sample_id_t, std::size_t> frame_of_id;
    for (std::size_t i = 0; i < facts.frames.size(); ++i) frame_of_id[facts.frames[i].sample_id] = i;
    std::vector<char> has_result(facts.frames.size());
    std::size_t latest = 0;
    for (const ResultRecord& result : facts.results) {
        const auto found = frame_of_id.find(result.sample_id);
        accounts.frame_of.emplace_back();
        if (found == frame_of_id.end() || facts.frames[found->second].exposed != result.exposed) {
            ++accounts.foreign;
            continue;
        }
        accounts.frame_of.back() = found->second;
        has_result[found->second] = 1;
        if (found->second < latest) ++accounts.disorder;
        latest = found->second;
    }
    // Results that the host counts and the watch did not get to see.
    std::uint64_t missed = facts.published.value_or(0) -
                           std::min<std::uint64_t>(facts.published.value_or(0), facts.results.size());
    for (std::size_t i = 0; i < facts.frames.size(); ++i) {
        const auto& fault = facts.frames[i].fault;
        const bool is_spoilt = fault && SpoilsFrame(*fault, camera);
        if (has_result[i] != 0) {
            accounts.fates.push_back(is_spoilt ? FrameFate::Used : FrameFate::Processed);
            ++(is_spoilt ? accounts.used : accounts.processed);
        } else if (is_spoilt) {
            accounts.fates.push_back(FrameFate::Refused);
            ++accounts.refused;
        } else if (missed > 0 || !facts.published) {
            accounts.fates.push_back(FrameFate::Unseen);
            ++accounts.unseen;
            if (missed > 0) --missed;
        } else {
            accounts.fates.push_back(FrameFate::Lost);
            ++accounts.lost;
        }
    }
    return accounts;
}

std::vector<std::string> JudgeFrames(const std::string& name, CameraKind kind, const CameraFacts& facts,
                                     const FrameAccounts& accounts, const RunFacts& run,
                                     double max_exceptions) {
    std::vector<std::string> violations;
    const auto require = [&](bool holds, const std::string& what) {
        if (!holds) violations.push_back(name + ": " + what);
    };
    const std::uint64_t sent = facts.frames.size();
    const std::uint64_t whole = sent - accounts.refused - accounts.used;
    const auto require_most = [&](std::uint64_t count, const std::string& what) {
        const std::uint64_t missing = whole - std::min(whole, count);
        require(static_cast<double>(missing) <= max_exceptions * static_cast<double>(whole),
                fmt::format("{} {} of {} whole frames", what, count, whole));
    };
    require(accounts.used == 0, fmt::format("{} frames were used though they were spoilt", accounts.used));
    require(accounts.foreign == 0, fmt::format("{} results belong to no frame", accounts.foreign));
    require(accounts.disorder == 0, fmt::format("{} results came out of order", accounts.disorder));
    require_most(whole - accounts.lost, "there are results of");
    require(!facts.published || accounts.processed > 0 || whole == 0, "no result was seen");
    const HostStream* const stream = run.FindStream(name);
    const HostCamera* const camera = run.FindCamera(name);
    if (stream == nullptr || camera == nullptr) {
        require(false, "the host tells nothing of this camera");
        return violations;
    }
    if (!run.at_rest) return violations;
    // A frame with a wrong ID leaves a gap of many that were never sent.
    const auto is_misnumbered = [](const FrameRecord& frame) {
        return frame.fault == FaultKind::WrongSampleId;
    };
    if (std::none_of(facts.frames.begin(), facts.frames.end(), is_misnumbered))
        require(stream->samples + stream->invalid + stream->lost == sent,
                fmt::format("{} frames were sent, but the host counts {} valid, {} invalid, {} lost", sent,
                            stream->samples, stream->invalid, stream->lost));
    require(stream->samples <= whole,
            fmt::format("the host counts {} valid frames, but {} were whole", stream->samples, whole));
    require_most(stream->samples, "the host counts as valid");
    // An ALICE frame may take the place of the one before; no other is skipped.
    if (kind == CameraKind::Alice)
        require_most(camera->processed, "the host has processed");
    else
        require(
            camera->processed == stream->samples,
            fmt::format("the host has processed {} of {} valid frames", camera->processed, stream->samples));
    require(!facts.published || *facts.published == camera->processed,
            fmt::format("the host shows {} results of {} processed frames", facts.published.value_or(0),
                        camera->processed));
    return violations;
}

MethodTimeline::MethodTimeline(const CameraScene& scene, std::span<const HostCommand> commands) {
    Period period{
        time_point::min(), time_point::min(), {TSH, SpotThreshold(scene.Sensor()->model), scene.Regions()}};
    m_periods.push_back(period);
    for (const HostCommand& command : commands) {
        period.asked = command.asked;
        period.done = command.done;
        if (const auto* change = std::get_if<SetCentroiding>(&command.action)) {
            period.centroiding.option = change->option;
            period.centroiding.threshold = change->threshold;
        }
        if (const auto* change = std::get_if<SetReference>(&command.action))
            period.centroiding.regions = {RegionAround(change->reference, change->box)};
        m_periods.push_back(period);
    }
}

const Centroiding* MethodTimeline::Find(time_point whole, time_point seen) const {
    const Period* latest = nullptr;
    for (const Period& period : m_periods) {
        if (period.done <= whole)
            latest = &period;
        else if (period.asked < seen)
            return nullptr;
    }
    return latest == nullptr ? nullptr : &latest->centroiding;
}

namespace {

class Measurer {
public:
    Measurer(const CameraScene& scene, SpotErrors& errors)
        : m_scene(scene), m_predictor(*scene.Sensor()), m_errors(errors) {}

    void Add(const FrameRecord& frame, std::span<const defs::Slope> slopes, const Centroiding& centroiding,
             bool is_predicted, double time) {
        if (slopes.size() != centroiding.regions.size()) {
            ++m_errors.wrong_counts;
            return;
        }
        m_scene.SpotsAt(frame.view.light, m_spots);
        double squares = 0.0;
        double tip = 0.0, tilt = 0.0, true_tip = 0.0, true_tilt = 0.0;
        for (std::size_t i = 0; i < slopes.size(); ++i) {
            const SpotRegion& region = centroiding.regions[i];
            const double x = m_spots[i].x - region.ref_x;
            const double y = m_spots[i].y - region.ref_y;
            squares += std::pow(slopes[i].x - x, 2) + std::pow(slopes[i].y - y, 2);
            tip += slopes[i].x;
            tilt += slopes[i].y;
            true_tip += x;
            true_tilt += y;
            if (is_predicted) Compare(frame, slopes[i], m_spots[i], region, centroiding);
        }
        const auto count = static_cast<double>(slopes.size());
        m_errors.time.push_back(time);
        m_errors.rms.push_back(std::sqrt(squares / (2.0 * count)));
        m_errors.tip.push_back(tip / count);
        m_errors.tilt.push_back(tilt / count);
        m_errors.true_tip.push_back(true_tip / count);
        m_errors.true_tilt.push_back(true_tilt / count);
    }

    // From what the frame should give, in pixels.
    double Distance(const FrameRecord& frame, const defs::Slope& slope, const Centroiding& centroiding) {
        m_scene.SpotsAt(frame.view.light, m_spots);
        const SpotPrediction expected = m_predictor.Predict(m_spots, centroiding.regions.front(),
                                                            WindowOf(frame), ThresholdOf(centroiding));
        return std::hypot(slope.x - Cut(expected.x), slope.y - Cut(expected.y));
    }

private:
    PixelWindow WindowOf(const FrameRecord& frame) const {
        return m_scene.Settings().kind == CameraKind::Marana ? frame.window : PixelWindow{};
    }

    void Compare(const FrameRecord& frame, const defs::Slope& slope, const Spot& spot,
                 const SpotRegion& region, const Centroiding& centroiding) {
        const bool has_theory = centroiding.option == TSH || centroiding.option == COG;
        const double threshold = ThresholdOf(centroiding);
        const SpotPrediction expected = m_predictor.Predict(m_spots, region, WindowOf(frame), threshold);
        const double error_x = slope.x - Cut(expected.x);
        const double error_y = slope.y - Cut(expected.y);
        const double worst = std::max(std::abs(error_x), std::abs(error_y));
        if (!(worst < 2.0 * SATURATION)) {  // a NaN, too
            ++m_errors.outliers;
            return;
        }
        if (!has_theory) {
            ++m_errors.unpredicted;
            m_errors.unpredicted_worst =
                std::max({m_errors.unpredicted_worst, std::abs(slope.x - Cut(spot.x - region.ref_x)),
                          std::abs(slope.y - Cut(spot.y - region.ref_y))});
            return;
        }
        if (expected.has_bad_pixel) {
            ++m_errors.repaired;
            m_errors.repaired_worst = std::max(m_errors.repaired_worst, worst);
            return;
        }
        if (expected.flux == 0.0) {  // no spot in the region: exactly nothing is to be found
            if (worst > 0.0) ++m_errors.outliers;
            return;
        }
        if (m_errors.error_x.size() < MOST_PICTURED) {
            m_errors.error_x.push_back(error_x);
            m_errors.error_y.push_back(error_y);
        }
        Count(error_x, expected.sigma_x, slope.x - (spot.x - region.ref_x),
              expected.x - (spot.x - region.ref_x));
        Count(error_y, expected.sigma_y, slope.y - (spot.y - region.ref_y),
              expected.y - (spot.y - region.ref_y));
    }

    void Count(double error, double sigma, double against_light, double bias) {
        ++m_errors.values;
        m_errors.squares += error * error / (sigma * sigma);
        m_errors.error_squares += against_light * against_light;
        m_errors.expected_squares += sigma * sigma + bias * bias;
        if (std::abs(error) > OUTLIER * sigma) ++m_errors.outliers;
    }

    const CameraScene& m_scene;
    SpotPredictor m_predictor;
    SpotErrors& m_errors;
    std::vector<Spot> m_spots;
};

}  // namespace

SpotErrors MeasureErrors(const CameraFacts& facts, const FrameAccounts& accounts, const CameraScene& scene,
                         const MethodTimeline& methods, time_point start) {
    constexpr std::size_t MOST_PREDICTED = 150'000;  // spots, some seconds
    SpotErrors errors;
    Measurer measurer(scene, errors);
    const std::size_t stride = facts.results.size() * scene.Regions().size() / MOST_PREDICTED + 1;
    for (std::size_t i = 0; i < facts.results.size(); ++i) {
        const ResultRecord& result = facts.results[i];
        const std::span<const defs::Slope> slopes = facts.slopes_of(result);
        if (slopes.empty() || !accounts.frame_of[i]) continue;
        const FrameRecord& frame = facts.frames[*accounts.frame_of[i]];
        const Centroiding* const centroiding = methods.Find(frame.sent, result.seen);
        if (centroiding == nullptr) continue;
        measurer.Add(frame, slopes, *centroiding, i % stride == 0, Seconds{frame.exposed - start}.count());
    }
    const std::uint64_t of_ring = 2 * scene.Settings().ring * scene.Regions().size();
    errors.distinct = of_ring == 0 ? errors.values : std::min(errors.values, of_ring);
    return errors;
}

SpotErrors MeasureLooks(const CameraFacts& facts, const CameraScene& scene, const MethodTimeline& methods,
                        std::span<const CameraLook> looks, time_point start) {
    const std::string name = vosk::to_string(scene.Settings().camera);
    SpotErrors errors;
    Measurer measurer(scene, errors);
    for (const CameraLook& look : looks) {
        const auto told = look.cameras.find(name);
        if (told == look.cameras.end() || !told->second.centroid) continue;
        const HostCamera::Centroid& centroid = *told->second.centroid;
        const defs::Slope slope{centroid.flux, centroid.x, centroid.y};
        // A host that is held up shows an older frame than the last.
        const auto is_before = [](time_point time) {
            return [time](const FrameRecord& frame) { return frame.sent < time; };
        };
        const auto end =
            std::partition_point(facts.frames.begin(), facts.frames.end(), is_before(look.answered));
        const time_point oldest = look.answered - LOOK_BACK - scene.Settings().Period();
        const auto begin = std::partition_point(facts.frames.begin(), end, is_before(oldest));
        const FrameRecord* nearest = nullptr;
        double best = 0.0;
        bool is_certain = true;
        for (auto frame = begin; frame != end; ++frame) {
            const Centroiding* const centroiding = methods.Find(frame->sent, look.answered);
            if (centroiding == nullptr) is_certain = false;
            if (centroiding == nullptr) continue;
            const double distance = measurer.Distance(*frame, slope, *centroiding);
            if (nearest == nullptr || distance < best) {
                nearest = &*frame;
                best = distance;
            }
        }
        if (nearest == nullptr || !is_certain) continue;
        if (best > STRANGER) {
            ++errors.strangers;
            continue;
        }
        measurer.Add(*nearest, std::span(&slope, 1), *methods.Find(nearest->sent, look.answered), true,
                     Seconds{nearest->exposed - start}.count());
    }
    errors.distinct = errors.values;
    return errors;
}

std::vector<std::string> JudgeErrors(const std::string& name, const SpotErrors& errors) {
    std::vector<std::string> violations;
    const auto require = [&](bool holds, const std::string& what) {
        if (!holds) violations.push_back(name + ": " + what);
    };
    require(errors.wrong_counts == 0,
            fmt::format("{} results have another number of spots", errors.wrong_counts));
    require(errors.strangers == 0,
            fmt::format("{} centroids that the host reported fit no frame", errors.strangers));
    require(errors.outliers == 0,
            fmt::format("{} centroids are off by more than {:g} times the noise", errors.outliers, OUTLIER));
    require(errors.repaired_worst < REPAIRED_LIMIT,
            fmt::format("a centroid over a repaired pixel is off by {:.3f} pixels", errors.repaired_worst));
    require(
        errors.unpredicted_worst < UNPREDICTED_LIMIT,
        fmt::format("a centroid of the brightest pixels is off by {:.3f} pixels", errors.unpredicted_worst));
    if (errors.values == 0) return violations;
    // What the statistics of so many values allow, and the noise's own approximations.
    const double margin = APPROXIMATION + 4.0 / std::sqrt(2.0 * static_cast<double>(errors.distinct));
    require(std::abs(errors.InNoise() - 1.0) <= margin,
            fmt::format("centroids scatter {:.3f} times as much as photons and read-out make them",
                        errors.InNoise()));
    return violations;
}

}  // namespace vosk::rig
