#pragma once

// The thread that finds the centroid of each frame of an ALICE camera. AliceInput wakes it through their
// exchange object; it cleans the one ROI of the frame in place, repairs its bad pixels, takes the centroid,
// and hands it to the camera's resampler, for field stabilisation. It takes the newest frame: frames that
// came meanwhile are gone.
//
// Threads: the worker runs Work() and waits for nothing but frames. The other operations are the host's,
// while the worker runs. A change counts from the next frame on; a frame that meets a change of ROI has the
// former ROI, one that meets a change of the centroiding options goes out as a slope of zero.

#include <lumolib/cOptions.hpp>
#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/lumoThread.hpp>
#include <lumolib/resamplerManager.hpp>
#include <lumolib/runtimeMonitor.hpp>

#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/valueTypes.hpp>
#include <vosk/image_processing/badPixelCorrection.hpp>
#include <vosk/image_processing/centroiding.hpp>
#include <vosk/image_processing/noiseRemoval.hpp>

#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <oru/configng/pliConfig.hpp>
#include <utility>

namespace vosk::lumo {

class ImageProcessing : public Thread {
public:
    using Pair = std::pair<std::uint32_t, std::uint32_t>;  // x, y

    // Keys: `camera_id` of the element, and those of its map `image_processing`. Another camera than the
    // imaging ones is refused before anything is registered for it.
    explicit ImageProcessing(const oru::configng::PliConfigInstanceNode& node);

    // The box about the reference position, both from 1 to 240 in each direction. An odd box is one pixel
    // smaller. std::runtime_error beyond that range, std::invalid_argument, logged, if the box overhangs the
    // frame; the former ROI then stays.
    void UpdateROISize(std::uint32_t box_x, std::uint32_t box_y, std::uint32_t ref_x, std::uint32_t ref_y);
    // As last accepted; of the box not the size of the ROI.
    Pair GetRefPos() const;
    Pair GetCentBoxSize() const;

    // std::runtime_error unless `option` is 1 to 3, std::invalid_argument, logged, of a parameter that the
    // method refuses; the present method then stays.
    void SetCOptions(std::uint32_t option, float threshold, std::uint32_t nbrightest);
    COptions GetCOptions();

protected:
    void Work(std::promise<void>& started) override;
    // False: the thread is to end.
    bool RunCycle();

    std::mutex m_mutex;  // guards m_centroiding; the worker only tries it

private:
    using Roi = image_processing::Roi;

    // What the host sets at once and reads back.
    struct Region {
        Roi roi;
        Pair box;
        Pair ref_pos;
    };

    void ProcessFrame();
    // Cleans the ROI of the newest frame. Empty if that frame was taken before.
    std::optional<defs::CentroidError> TakeFrame();
    void TakeCentroid(defs::Slope& slope);

    const defs::Camera m_camera;
    const std::shared_ptr<ImgDataSyncAlice> m_img_sync;
    std::shared_ptr<CentroidResampler> m_cent_err_resampler;
    const std::shared_ptr<FrameFigures> m_figures;
    // Worker thread only.
    std::unique_ptr<image_processing::NoiseRemovalBase> m_noise_removal;
    std::unique_ptr<image_processing::bad_pixel_correction_block> m_bad_pixel_correction;  // null: none
    Roi m_roi;  // of the frame in work
    defs::sample_id_t m_frame_id{};

    mutable std::mutex m_region_mutex;
    Region m_region;  // guarded by m_region_mutex, which the worker only tries

    std::unique_ptr<image_processing::Centroiding<float>>
        m_centroiding;  // replaced under m_mutex by the host alone; never null
};

}  // namespace vosk::lumo
