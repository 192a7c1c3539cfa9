#pragma once

// The thread that receives the frames of an ALICE camera. It does no more than hand each frame on: its
// counterpart ImageProcessing, made from the same element of the configuration, is woken by their exchange
// object and takes the newest frame. A frame that is overwritten before is gone, without a count.

#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/streamInput.hpp>

#include <memory>
#include <oru/configng/pliConfig.hpp>
#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/wireRecords.hpp>

namespace vosk::lumo {

// The camera that the key `camera_id` names. std::out_of_range if there is none of the name; an imaging
// camera, or std::runtime_error with "<user>: Invalid camera ID: <camera>", logged. Under a review IMG_GP1
// stands for a camera that can't be used.
defs::Camera GetImagingCamera(const oru::configng::PliConfigInstanceNode& node, const char* user);

// Where the frames of the camera pass. Who asks first decides how the reader waits.
std::shared_ptr<ImgDataSyncAlice> FramesOf(defs::Camera camera, bool busy);

class AliceInput : public LspxInput {
public:
    // Keys: `camera_id` (required), `qudex_topic` (required), and those of the network.
    explicit AliceInput(const oru::configng::PliConfigInstanceNode& node);

protected:
    Received Receive() override;
    void OnSample(const Leader& leader, const Trailer& trailer, time_point now) override;

private:
    const defs::Camera m_camera;
    const std::shared_ptr<ImgDataSyncAlice> m_img_sync;
    const std::shared_ptr<Statistics> m_statistics;
    // Worker thread only: the sample in work.
    VisImgDataAlice m_frame;
    defs::TransportTimepoint m_exposure;
};

}  // namespace vosk::lumo
