#pragma once

// A wavefront sensor for the benchmarks: its calibration files, its node, and the work that its frames cannot
// do without.

#include "cameraSender.hpp"
#include "frames.hpp"
#include "workerThreads.hpp"

#include <vosk/image_processing/regionBatches.hpp>

#include <memory>
#include <span>
#include <string>
#include <vector>

namespace vosk::bench {

constexpr std::size_t MODES = defs::GPAO_CMD_SIZE;
constexpr auto WFS = defs::Camera::WFS_GP1;

inline const Camera LISA{"LISA", 206, 960 * 816, pktwire::lspx::LITTLE_ENDIAN_UNITS};

struct Sensor {
    std::size_t columns;  // of sub-apertures, and as many rows
    std::uint16_t size;   // of an ROI
    double budget_us = 0.0;
};
constexpr Sensor LARGEST{32, 24};

std::string NameOf(const Sensor& sensor);

// The files of a LISA camera.
class CameraSurroundings : public Surroundings {
public:
    explicit CameraSurroundings(const LisaFrame& frame);
    ~CameraSurroundings();
    CameraSurroundings(const CameraSurroundings&) = delete;
    CameraSurroundings& operator=(const CameraSurroundings&) = delete;

    // Of a process. This frame is dumped.
    static unsigned FirstId() { return static_cast<unsigned>(::getpid()); }

    static void Renew();
    static std::string ReceiverKeys(const std::string& camera, std::uint16_t port, int cpu, bool busy);
};

// The receiver on `cpu`, a worker on each of `workers`.
oru::configng::PliConfigInstanceNode WfsNode(const CameraSurroundings& files, const Sensor& sensor,
                                             std::uint16_t port, int cpu, std::span<const int> workers,
                                             bool busy);

// Numbers its frames from FirstId() on.
struct LisaSender : CameraSender {
    LisaSender(const LisaFrame& frame, std::uint16_t port);
};

// A worker's share of a frame.
class Share {
public:
    Share(const LisaFrame& frame, std::vector<image_processing::Roi> rois);
    void Compute(std::span<const std::uint16_t> raw);

private:
    std::unique_ptr<image_processing::LisaNoiseRemoval> m_removal;
    std::vector<Estimator> m_estimators;  // the first is that of a camera without a key for it
    image_processing::RegionBatches m_batches;
    std::vector<defs::Slope> m_slopes;
};

}  // namespace vosk::bench
