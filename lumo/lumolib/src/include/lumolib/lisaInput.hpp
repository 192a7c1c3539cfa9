#pragma once

// The threads of LISA cameras: a Shack-Hartmann wavefront sensor, whose slopes become modal coefficients for
// GPAO and a tip/tilt error for field stabilisation, and an imaging camera, whose centroid error goes to
// field stabilisation. LISA's frames have one size, and their leaders tell the exposure time.

#include <lumolib/cameraInput.hpp>
#include <lumolib/dataSyncCatalogue.hpp>
#include <lumolib/simSourceManager.hpp>

#include <vosk/defs/wireRecords.hpp>

#include <memory>
#include <optional>
#include <oru/configng/pliConfig.hpp>
#include <span>
#include <string>
#include <vector>

namespace vosk::lumo {

// Base is WfsCameraInput or ImgCameraInput.
template <class Base>
class LisaInput : public Base {
protected:
    // The thread is named `prefix` and the key `camera_id`. Keys and errors are those of Base.
    LisaInput(const char* prefix, const oru::configng::PliConfigInstanceNode& node);

    // A frame of fewer pixels than the sensor has is an error.
    typename Base::Received Receive() override;
    time_point ExposureTime() const override { return m_exposure_stamp; }
    // Writes the first frame of the process that is completed by any thread with this Base.
    void DiagnoseFrame() override;

    static const typename Base::Sensor SENSOR;

private:
    defs::TransportTimepoint
        m_exposure_stamp;  // leader information of the latest sample; receive thread only
};

extern template class LisaInput<WfsCameraInput>;
extern template class LisaInput<ImgCameraInput>;

class WfsLisaInput : public LisaInput<WfsCameraInput> {
public:
    // Keys beside those of its bases: `control_matrix_path`, `reference_points_path`, `rois_path` and
    // `modes2tt_matrix` (required), `cent_err_resampler`, `sim_out`, `shm_topic`, `centroid_sim_enabled`, and
    // those of a subtask. std::runtime_error, logged, of a camera that is no wavefront sensor and of files
    // that don't fit together; std::bad_alloc of more than MAX_SLOPES sub-apertures.
    explicit WfsLisaInput(const oru::configng::PliConfigInstanceNode& node);

protected:
    void Work(std::promise<void>& started) override;

private:
    void RequireCamera(const oru::configng::PliConfigInstanceNode& node) const;
    void ReadConfiguration(const oru::configng::PliConfigInstanceNode& node);
    // A subtask for each worker; the last one has the smallest share.
    void BalancePool(const oru::configng::PliConfigInstanceNode& node);

    // The completion task, on the worker that finishes last.
    void Complete();
    void CollectSlopes();
    void GetSimCentroidsForCamera(std::span<defs::Slope> slopes);
    void ProjectToModalBase();
    defs::FloatVectorTT ExtractTipTiltError() const;
    void SendSimOutput();

    // Set in the constructor, constant afterwards.
    std::vector<float> m_control_matrix;  // as WfsConfiguration
    std::vector<float> m_modes2tt;        // 2 x 2, row by row
    std::shared_ptr<CentroidResampler> m_cent_err_resampler;
    std::shared_ptr<GpaoCoefficientsDataSync> m_gpao_coefficients_sync;
    // Of the completion task; the slopes of a frame stay until the next one has any.
    GpaoCoefficients m_gpao_coefficients{};
    const std::unique_ptr<SimulatedCentroids> m_simulated = std::make_unique<SimulatedCentroids>();
    std::optional<SimulatorOutput<defs::WfsTopic>> m_sim_output;  // in simulation mode
};

class ImgLisaInput : public LisaInput<ImgCameraInput> {
public:
    // Keys and errors as ImgCameraInput.
    explicit ImgLisaInput(const oru::configng::PliConfigInstanceNode& node);
};

}  // namespace vosk::lumo
