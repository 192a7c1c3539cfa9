#include <lumolib/imageProcessing.hpp>

#include <lumolib/aliceInput.hpp>
#include <lumolib/utilities.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/image_processing/centroidingFactory.hpp>
#include <vosk/image_processing/noiseRemovalFactory.hpp>

#include <cmath>
#include <gsl/util>
#include <shared_mutex>
#include <stdexcept>
#include <string>

namespace vosk::lumo {

using atomclk::AtomClk;
using image_processing::Roi;
using oru::configng::Attempt;
using oru::configng::PliConfigInstanceNode;

namespace {

namespace factory = image_processing::factory;

constexpr std::uint16_t WIDTH = image_processing::AliceNoiseRemoval::WIDTH;
constexpr std::uint16_t HEIGHT = image_processing::AliceNoiseRemoval::HEIGHT;
static_assert(WIDTH == VisImgDataAlice::COLUMNS && HEIGHT == VisImgDataAlice::ROWS);

using Pair = ImageProcessing::Pair;

bool IsInFrame(const Pair& pair) {
    return pair.first >= 1 && pair.first <= WIDTH && pair.second >= 1 && pair.second <= HEIGHT;
}

// The texts have no other form.
void VetBox(const Pair& box) {
    if (!IsInFrame(box)) throw std::runtime_error{"ERR: cent_<x> coordinates outside of image"};
}

void VetRefPos(const Pair& ref_pos) {
    if (!IsInFrame(ref_pos)) throw std::runtime_error{"ERR: refpos_<x> coordinates outside of image"};
}

// A box over the left or top edge shows as a start just below 65536, which the ROI refuses.
Roi RoiAbout(const Pair& ref_pos, const Pair& box) {
    const auto cut = [](std::uint32_t sum) { return static_cast<std::uint16_t>(sum); };
    const auto [ref_x, ref_y] = ref_pos;
    const std::uint32_t half_x = box.first / 2;
    const std::uint32_t half_y = box.second / 2;
    return {cut(ref_x - half_x),
            cut(ref_x + half_x),
            cut(ref_y - half_y),
            cut(ref_y + half_y),
            WIDTH,
            HEIGHT,
            static_cast<double>(ref_x),
            static_cast<double>(ref_y)};
}

// Where a fault of what the key describes is noted.
PliConfigInstanceNode PlaceOf(const PliConfigInstanceNode& section, const std::string& key) {
    return section.Has(key) ? section[key] : section;
}

// Under a review `harmless` stands for a pair that is refused.
Pair GetPair(const PliConfigInstanceNode& section, const std::string& key, void (*vet)(const Pair&),
             Pair harmless) {
    Pair pair = harmless;
    const auto list = section[key];
    Attempt(list, [&] {
        const Pair given{list[0].As<std::uint32_t>(), list[1].As<std::uint32_t>()};
        vet(given);
        pair = given;
    });
    return pair;
}

}  // namespace

ImageProcessing::ImageProcessing(const PliConfigInstanceNode& node)
    : Thread{"ImgProc_" + GetParam<std::string>(node, "camera_id"), node["image_processing"],
             "ALICE/PDS Image processing"},
      m_camera{GetImagingCamera(node, "ImageProcessing")},
      m_img_sync{FramesOf(m_camera, m_busy)},
      m_figures{RuntimeMonitor::GetInstance().Of(m_camera).frames},
      m_roi{RoiAbout({1, 1}, {1, 1})},
      m_region{m_roi, {1, 1}, {1, 1}} {
    const auto section = node["image_processing"];
    const auto attempt = [&section](const char* key, const auto& step) {
        Attempt(PlaceOf(section, key), step);
    };
    m_cent_err_resampler = GetCentroidResampler(section, m_camera);
    attempt("noise_removal",
            [&] { m_noise_removal = factory::CreateAliceNoiseRemoval(section, "noise_removal"); });
    attempt("bad_pixels", [&] {
        m_bad_pixel_correction = factory::CreateBadPixelCorrection(node, "image_processing", WIDTH, HEIGHT);
    });
    attempt("centroiding_algorithm", [&] {
        m_centroiding = factory::CreateCentroiding<float>(section, "centroiding_algorithm", WIDTH, HEIGHT);
    });
    const Pair box = GetPair(section, "cent_box", VetBox, {1, 1});
    const Pair ref_pos = GetPair(section, "refpos", VetRefPos, {WIDTH / 2, HEIGHT / 2});
    attempt("cent_box", [&] { UpdateROISize(box.first, box.second, ref_pos.first, ref_pos.second); });
}

void ImageProcessing::UpdateROISize(std::uint32_t box_x, std::uint32_t box_y, std::uint32_t ref_x,
                                    std::uint32_t ref_y) {
    const Pair box{box_x, box_y};
    const Pair ref_pos{ref_x, ref_y};
    VetBox(box);
    VetRefPos(ref_pos);
    const Roi roi = RoiAbout(ref_pos, box);
    {
        const std::lock_guard lock{m_region_mutex};
        m_region = {roi, box, ref_pos};
    }
    common::LogTrace("ImageProcessing: ROI [{}, {}] - [{}, {}]", roi.x_start, roi.y_start, roi.x_stop,
                     roi.y_stop);
}

ImageProcessing::Pair ImageProcessing::GetRefPos() const {
    const std::lock_guard lock{m_region_mutex};
    return m_region.ref_pos;
}

ImageProcessing::Pair ImageProcessing::GetCentBoxSize() const {
    const std::lock_guard lock{m_region_mutex};
    return m_region.box;
}

// The estimator is made and the former one destroyed outside the lock, which costs the frames that meet it
// their centroids. Only this operation replaces it, so that it can be looked at without the lock.
void ImageProcessing::SetCOptions(std::uint32_t option, float threshold, std::uint32_t nbrightest) {
    auto estimator =
        factory::MakeEstimator(option, threshold, nbrightest, WIDTH, HEIGHT, m_centroiding->saturation);
    if (!estimator) throw std::runtime_error{"ERR: options must be in range 1..3"};
    const std::lock_guard lock{m_mutex};
    m_centroiding.swap(estimator);
}

// Without the lock, as above: a query must not cost a frame its centroid.
COptions ImageProcessing::GetCOptions() {
    const auto options = factory::OptionsOf(*m_centroiding);
    return {static_cast<unsigned int>(options.nbrightest), options.threshold,
            static_cast<unsigned int>(options.option)};
}

// The first frame may meet a change of ROI: it has a former one by then.
void ImageProcessing::Work(std::promise<void>& started) {
    {
        const std::lock_guard lock{m_region_mutex};
        m_roi = m_region.roi;
    }
    Drain(*m_cent_err_resampler);
    started.set_value();
    while (IsRunning() && RunCycle()) {
    }
    m_img_sync->ClearDataReady();  // AliceInput has stopped before: a restart takes no frame of this run
}

bool ImageProcessing::RunCycle() {
    if (!m_img_sync->GetSynchronizer()->Wait(m_running)) return false;
    // A block that refuses a frame costs this frame, and neither the thread nor the process.
    try {
        ProcessFrame();
    } catch (const std::exception& error) {
        common::LogError("{}: no centroid of frame {}: {}", m_name, m_frame_id, error.what());
    }
    return true;
}

void ImageProcessing::ProcessFrame() {
    const auto begin = AtomClk::now();
    auto record = TakeFrame();
    if (!record) return;
    if (m_bad_pixel_correction) m_bad_pixel_correction->work(m_noise_removal->GetFrame(), m_roi);
    TakeCentroid(record->slope);
    if (!std::isfinite(record->slope.x) || !std::isfinite(record->slope.y))
        throw std::runtime_error{"it is not finite"};
    m_cent_err_resampler->AddSample(*record);
    const auto& slope = record->slope;
    RuntimeMonitor::GetPerformanceData().SetCentroidError(static_cast<float>(slope.x),
                                                          static_cast<float>(slope.y));
    m_figures->RecordCentroid(slope);
    m_figures->RecordProcessingTime(AtomClk::now() - begin);
}

std::optional<defs::CentroidError> ImageProcessing::TakeFrame() {
    if (const std::unique_lock lock{m_region_mutex, std::try_to_lock}; lock) m_roi = m_region.roi;

    const std::shared_lock lock{m_img_sync->GetMutex()};
    // Under the lock: the flags of a later frame stay set. A refused frame clears them too, or it would come
    // again without end.
    const auto clear = gsl::finally([this] { m_img_sync->ClearDataReady(); });
    // A writer wakes this thread after it has given the lock back, when its frame may have been taken
    // already.
    if (!m_img_sync->IsNewData()) return {};
    m_frame_id = m_img_sync->GetSampleId();
    m_noise_removal->RemoveNoise(m_img_sync->GetDataRef().pixels, std::nullopt, m_roi);
    return defs::CentroidError{m_img_sync->GetTimestamp(), m_frame_id, {}};
}

void ImageProcessing::TakeCentroid(defs::Slope& slope) {
    const std::unique_lock lock{m_mutex, std::try_to_lock};
    if (!lock) return;
    m_centroiding->Compute(m_noise_removal->GetFrame(), m_roi);
    slope = {m_centroiding->flux, m_centroiding->x, m_centroiding->y};
}

}  // namespace vosk::lumo
