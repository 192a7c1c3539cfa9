#pragma once

// The receiving thread of a camera, up to the centroids of its ROIs. It owns two raw frames and a pool: while
// the pool works on one frame, the network fills the other. A frame that comes before the pool is done waits
// for it, and nothing is dropped. The camera classes bring what differs: how a frame is received, when it was
// exposed, the tasks of the pool, and where the result goes.
//
// Threads: the receive thread runs Work() and, in a pool without workers, the tasks; the workers of the pool
// run them otherwise. The host's thread reads and changes centroiding options and the ROI. Nothing but the
// scratch of an NBR estimator allocates for a frame.

#include <lumolib/resamplerManager.hpp>
#include <lumolib/runtimeMonitor.hpp>
#include <lumolib/streamInput.hpp>
#include <lumolib/utilities.hpp>

#include <vosk/common/numaThreadPool.hpp>
#include <vosk/common/shmif/shmIf.hpp>
#include <vosk/common/shmif/shmRt.hpp>
#include <vosk/defs/alignedFrame.hpp>
#include <vosk/defs/valueTypes.hpp>
#include <vosk/image_processing/badPixelCorrection.hpp>
#include <vosk/image_processing/centroiding.hpp>
#include <vosk/image_processing/centroidingFactory.hpp>
#include <vosk/image_processing/noiseRemoval.hpp>
#include <vosk/image_processing/regionBatches.hpp>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace vosk::lumo {

// A raw frame, and the part of the sensor that was read out where the camera reports one.
using CameraFrame = std::pair<defs::AlignedFrame<std::uint16_t>, std::optional<image_processing::Window>>;

// A share of a camera's ROIs, with all that is needed to find their slopes: two of them share nothing that is
// written.
class ComputeSlopesSubtask {
public:
    using NoiseRemoval = image_processing::NoiseRemovalBase;
    using BadPixelCorrection = image_processing::bad_pixel_correction_block;
    using Estimator = image_processing::Centroiding<float>;
    using Batches = image_processing::RegionBatches;

    // From the ROI `start` up to, but not including, `stop` of all ROIs of the camera, which outlive the
    // object. Without bad pixels their correction is null. std::runtime_error, logged, unless the range lies
    // in the ROIs and is not empty.
    ComputeSlopesSubtask(std::unique_ptr<NoiseRemoval> noise_removal,
                         std::unique_ptr<BadPixelCorrection> bad_pixel_correction,
                         std::unique_ptr<Estimator> centroiding, std::size_t start, std::size_t stop,
                         std::span<const image_processing::Roi> rois);

    // Holds the mutex exclusively for the whole frame. One thread at a time.
    void ComputeSlopes(const CameraFrame& frame);
    // The slopes of the share into the same places of `slopes`, as far as these go.
    void CopySlopes(std::span<defs::Slope> slopes) const;

    image_processing::factory::EstimatorOptions GetOptions() const;
    // An estimator like the present one but in its method; null of an unknown one. std::invalid_argument as
    // the estimator throws it.
    std::unique_ptr<Estimator> MakeEstimator(std::size_t algorithm, float threshold,
                                             std::size_t nbrightest) const;
    // Waits for the frame in work.
    void ReplaceEstimator(std::unique_ptr<Estimator> centroiding);

    // Exclusive for a frame in work and for changes.
    std::shared_mutex& GetMutex() const noexcept { return *m_mutex; }
    // What a change of the ROIs needs: made without the mutex, put in place with it held exclusively.
    Batches PlanBatches(std::span<const image_processing::Roi> share) const;
    void SwapBatches(Batches& batches) { std::swap(*m_batches, batches); }

private:
    std::size_t m_start;
    std::size_t m_stop;
    std::span<const image_processing::Roi> m_rois;  // of the camera
    std::unique_ptr<std::shared_mutex> m_mutex = std::make_unique<std::shared_mutex>();
    std::vector<defs::Slope> m_slopes;              // of the camera; guarded by m_mutex
    std::unique_ptr<NoiseRemoval> m_noise_removal;  // of the thread that computes
    std::unique_ptr<BadPixelCorrection> m_bad_pixel_correction;
    std::unique_ptr<Estimator> m_centroiding;  // guarded by m_mutex
    std::optional<Batches> m_batches;          // guarded by m_mutex
};

class CameraInput : public LspxInput {
public:
    // The centroiding method as the host sees it.
    struct COptions {
        std::uint64_t nbrightest{0};  // of NBR
        float threshold{0.0F};        // of TSH
        std::uint64_t algorithm{3};   // 1 for TSH, 2 for NBR, 3 for COG
    };

    // Keys: `camera_id` (required; std::out_of_range if it names no camera), `centroiding_pool`, and those of
    // the network, with the three configurations as defaults. The raw frames have width times height pixels.
    CameraInput(const std::string& name, const oru::configng::PliConfigInstanceNode& node,
                const pktwire::UdpRxSocket::Config& udp, const pktwire::qudex::Receiver::Config& qudex,
                const pktwire::lspx::Receiver::Config& lspx, std::size_t frame_width,
                std::size_t frame_height);

    // The centroiding method of all ROIs. A change waits for the frame in work and counts from the next one
    // on. std::runtime_error, logged, of an unknown method, std::invalid_argument, logged, of a parameter
    // that the method refuses; the present method then stays.
    COptions GetCOptions() const;
    void SetCOptions(std::size_t algorithm, float threshold, std::size_t nbrightest);

    std::vector<common::ThreadState> GetWorkers() const override { return m_pool.GetStates(); }

    // Publishes each result on an RT topic, for a simulation outside. Never waits for its reader.
    template <class T>
    class SimulatorOutput {
    public:
        // Throws std::runtime_error if the topic can't be opened.
        explicit SimulatorOutput(const std::string& topic) : m_writer{Register(m_shm, topic), topic} {
            if (!m_writer.IsValid())
                common::LogAndThrow("ERR: Shared-memory topic " + topic + " can't be used");
        }
        void TrySend(const T& value) {
            common::LogTrace("LisaInput simulation mode, sending data");
            m_writer.TrySend(&value);
            common::LogTrace("LisaInput simulation mode, data sent OK");
        }

    private:
        static common::shmif::ShmIf& Register(common::shmif::ShmIf& shm, const std::string& topic) {
            common::shmif::ShmIf::RegisterTopic(topic, common::shmif::ShmType::SHM_RT, sizeof(T));
            return shm;
        }

        common::shmif::ShmIf m_shm;
        common::shmif::ShmWriterRT m_writer;
    };

protected:
    // What belongs to one frame and to no other.
    struct FrameLabel {
        defs::sample_id_t sample_id{};
        time_point exposure_time{};
        time_point receive_time{};
    };

    // What a camera's cleaned frames are, and how they are made.
    struct Sensor {
        std::uint16_t width;
        std::uint16_t height;
        std::unique_ptr<ComputeSlopesSubtask::NoiseRemoval> (*make_noise_removal)(
            const oru::configng::PliConfigInstanceNode& node, const std::string& key);
    };

    // Of a subtask, and of no other.
    struct Parts {
        std::unique_ptr<ComputeSlopesSubtask::NoiseRemoval> noise_removal;
        std::unique_ptr<ComputeSlopesSubtask::BadPixelCorrection> bad_pixel_correction;
        std::unique_ptr<ComputeSlopesSubtask::Estimator> centroiding;
    };

    // Of the sample received last. Receive thread.
    virtual time_point ExposureTime() const = 0;

    // Until the thread is stopped and the pool is idle.
    void Work(std::promise<void>& started) override;
    void OnSample(const Leader& leader, const Trailer& trailer, time_point now) override;
    void OnNothing(time_point now) override;
    // Once for each frame, behind its result.
    virtual void DiagnoseFrame() = 0;

    // Runs a step of a task: while it runs the frame is in use, and what it throws is logged and ends the
    // step alone. Slopes that it did not reach stay those of the frame before.
    template <class Step>
    void RunStep(Step&& step) noexcept {
        ++m_frames_in_use;
        try {
            std::forward<Step>(step)();
        } catch (const std::exception& error) {
            LogFailure(error);
        }
        --m_frames_in_use;
    }
    // The task of a subtask.
    void ComputeSlopes(std::size_t subtask) noexcept;

    // Set-up.

    // By the keys `sim_out` and `shm_topic`.
    template <class T>
    void OpenSimOutput(const oru::configng::PliConfigInstanceNode& node,
                       std::optional<SimulatorOutput<T>>& output) const {
        if (!GetParamOr(node, "sim_out", false)) return;
        common::LogDebug("{}: Simulation mode ON", m_name);
        const auto topic = GetParam<std::string>(node, "shm_topic");
        oru::configng::Attempt(node["shm_topic"], [&] { output.emplace(topic); });
    }
    // As the keys `centroiding_algorithm`, `bad_pixel_correction` and `noise_removal` (required) tell, with
    // the errors of their factories.
    static Parts MakeParts(const oru::configng::PliConfigInstanceNode& node, const Sensor& sensor);
    // With the errors of the subtask. Under a review nothing is appended where a part is missing.
    void AddSubtask(Parts parts, std::size_t start, std::size_t stop);

    // What the network may fill, receive thread; and what the tasks work on.
    CameraFrame& IdleFrame() noexcept { return m_frames[1 - m_frame_index]; }
    const CameraFrame& FrameInWork() const noexcept { return m_frames[m_frame_index]; }
    const FrameLabel& LabelInWork() const noexcept { return m_labels[m_frame_index]; }

    // A sample of fewer pixels would leave those of an older frame in the buffer; a WARN. One of bad status
    // is refused as that.
    bool IsWhole(const Leader& leader, std::size_t pixels) const;

    // For a completion task whose result is not finite and goes nowhere: it would spread through the
    // flowgraphs.
    void PassOver();

    // For a completion task, when the result has gone: counts and logs the processing time. `kind` is "WFS"
    // or "IMG", `centroid` null for the former.
    void RecordProcessed(const char* kind, const defs::Slope* centroid) const;

    const defs::Camera m_camera;
    const RuntimeMonitor::CameraFigures m_figures;
    // Of the latest frame. Receive thread only; tasks read the label of their frame.
    time_point m_exposure_time{};
    time_point m_receive_time{};
    defs::sample_id_t m_sample_id{};
    std::vector<image_processing::Roi> m_rois;  // filled before the subtasks, which look at it
    std::vector<ComputeSlopesSubtask> m_subtasks;

private:
    static constexpr std::size_t BUFFERS = 2;

    void StartFrame();
    void LogFailure(const std::exception& error) const noexcept;

    // A frame is written by the receive thread while it is idle, and its label when it goes to work; tasks
    // read both from then on.
    std::array<CameraFrame, BUFFERS> m_frames;
    std::array<FrameLabel, BUFFERS> m_labels{};
    std::atomic<std::uint64_t> m_frames_in_use{0};  // steps at work on a frame
    std::atomic<std::uint64_t> m_frame_index{0};    // of the frame in work; written by the receive thread

protected:
    common::NumaThreadPool m_pool;  // last: its threads end before what they work on
};

// A wavefront sensor: its work is shared by the workers of the pool.
class WfsCameraInput : public CameraInput {
public:
    // As CameraInput; refuses a pool without workers.
    WfsCameraInput(const std::string& name, const oru::configng::PliConfigInstanceNode& node,
                   const pktwire::UdpRxSocket::Config& udp, const pktwire::qudex::Receiver::Config& qudex,
                   const pktwire::lspx::Receiver::Config& lspx, std::size_t frame_width,
                   std::size_t frame_height);
};

// An imaging camera: one star in one ROI, which the receive thread itself computes.
class ImgCameraInput : public CameraInput {
public:
    // As CameraInput; refuses a pool with workers.
    ImgCameraInput(const std::string& name, const oru::configng::PliConfigInstanceNode& node,
                   const pktwire::UdpRxSocket::Config& udp, const pktwire::qudex::Receiver::Config& qudex,
                   const pktwire::lspx::Receiver::Config& lspx, std::size_t frame_width,
                   std::size_t frame_height);

    // For the host's thread. A box of `box_x` columns and `box_y` rows around a reference point, in pixels of
    // the cleaned frame. Waits for the frame in work and counts from the next one on. std::invalid_argument,
    // logged, of a box that reaches out of the frame; the present ROI then stays.
    void SetRoi(std::size_t box_x, std::size_t box_y, float ref_x, float ref_y);
    // x and y, each truncated.
    std::pair<std::uint64_t, std::uint64_t> GetRefPos() const;
    // Columns and rows.
    std::pair<std::uint64_t, std::uint64_t> GetRoiSize() const;

protected:
    // For the constructor of the camera class: all that stands behind the network. Keys: `cent_box` and
    // `refpos` (required), `cent_err_resampler`, `sim_out`, `shm_topic`, and those of a subtask.
    // std::runtime_error, logged, of a camera that is not accepted; else the errors of the parts.
    void SetUp(const oru::configng::PliConfigInstanceNode& node, const Sensor& sensor,
               std::span<const defs::Camera> accepted);

    void Work(std::promise<void>& started) override;

private:
    void Complete();

    std::shared_ptr<CentroidResampler> m_cent_err_resampler;
    std::optional<SimulatorOutput<defs::CentroidError>> m_sim_output;  // in simulation mode
};

}  // namespace vosk::lumo
