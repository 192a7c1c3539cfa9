#pragma once

// The thread of a MARANA camera, the imaging camera of the PDS. It can read out a window of its sensor, which
// the leader of each sample tells; so the sample is received packet by packet, the window's rows packed at
// the start of the raw frame.

#include <lumolib/cameraInput.hpp>

#include <vosk/defs/wireRecords.hpp>

#include <oru/configng/pliConfig.hpp>

namespace vosk::lumo {

class ImgMaranaInput : public ImgCameraInput {
public:
    // Keys and errors as ImgCameraInput; `camera_id` is IMG_PDS.
    explicit ImgMaranaInput(const oru::configng::PliConfigInstanceNode& node);

protected:
    // A sample of another data type, of a window beyond the sensor, or of fewer pixels than its window has is
    // an error, and leaves the window of the idle frame as it was.
    Received Receive() override;
    time_point ExposureTime() const override { return m_leader_info.exposure_time; }
    void DiagnoseFrame() override;

private:
    // Whether the frame can be processed; else a WARN.
    bool IsUsable(const Leader& leader) const;

    defs::MaranaLeaderInfo m_leader_info{};  // of the latest sample; receive thread only
};

}  // namespace vosk::lumo
