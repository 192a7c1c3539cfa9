#include "wfsBench.hpp"

#include <fmt/format.h>
#include <lumolib/voskTelescopeStateManager.hpp>

namespace vosk::bench {

using image_processing::Roi;

std::string NameOf(const Sensor& sensor) {
    return fmt::format("WFS {0} x {0} of {1} x {1}", sensor.columns, sensor.size);
}

CameraSurroundings::CameraSurroundings(const LisaFrame& frame) {
    Write("data/scrambling/lisa_descrambling_vector.fits", frame.table, {frame.table.size()});
    Write("dark.fits", frame.bias, {Geometry::WIDTH, Geometry::HEIGHT});
    Write("flat.fits", frame.flat, {Geometry::WIDTH, Geometry::HEIGHT});
}

CameraSurroundings::~CameraSurroundings() {
    std::error_code ignored;
    for (const char* order : {"scrambled", "unscrambled"}) {
        std::filesystem::remove(
            fmt::format("/tmp/lisa_input_{}_{}_{}.fits", static_cast<int>(WFS), FirstId(), order), ignored);
    }
}

void CameraSurroundings::Renew() {
    Surroundings::Renew();
    lumo::VoskTelescopeStateManager::SetActiveCameraFS(WFS);
}

std::string CameraSurroundings::ReceiverKeys(const std::string& camera, std::uint16_t port, int cpu,
                                             bool busy) {
    return fmt::format(
        "camera_id: {}, busy: {}, cpu: {}, timeout: 50 ms, listen_ip: 127.0.0.1, iface_name: lo, "
        "listen_udp: {}, qudex_topic: {}",
        camera, busy, cpu, port, CameraSender::TOPIC);
}

oru::configng::PliConfigInstanceNode WfsNode(const CameraSurroundings& files, const Sensor& sensor,
                                             std::uint16_t port, int cpu, std::span<const int> workers,
                                             bool busy) {
    std::vector<std::uint16_t> corners;
    std::vector<float> references;
    for (const Roi& roi : Regions(sensor.size, sensor.columns)) {
        corners.insert(corners.end(), {roi.x_start, roi.x_stop, roi.y_start, roi.y_stop});
        references.insert(references.end(), {static_cast<float>(roi.ref_x), static_cast<float>(roi.ref_y)});
    }
    const std::size_t count = sensor.columns * sensor.columns;
    std::string pool;
    for (const int worker : workers) pool += fmt::format("{{cpu: {}}}, ", worker);
    return Surroundings::NodeOf(
        CameraSurroundings::ReceiverKeys("WFS_GP1", port, cpu, busy) +
        fmt::format(
            ", noise_removal: {{dark_path: {}, flat_path: {}}}, rois_path: {}, reference_points_path: "
            "{}, control_matrix_path: {}, modes2tt_matrix: [1, 0, 0, 1], centroiding_pool: [{}]",
            files.Path("dark.fits"), files.Path("flat.fits"), files.Write("rois.fits", corners, {4, count}),
            files.Write("references.fits", references, {2, count}),
            files.Write("control.fits", std::vector<float>(2 * count * MODES, 1e-3F), {2 * count, MODES}),
            pool));
}

LisaSender::LisaSender(const LisaFrame& sent, std::uint16_t port) : CameraSender{LISA, port} {
    const auto bytes = std::as_bytes(std::span{sent.raw});
    frame.assign(bytes.begin(), bytes.end());
    lspx.SetSampleId(CameraSurroundings::FirstId());
}

Share::Share(const LisaFrame& frame, std::vector<Roi> rois)
    : m_removal{frame.MakeRemoval()},
      m_estimators{Estimators()},
      m_batches{rois, nullptr},
      m_slopes(rois.size()) {}

void Share::Compute(std::span<const std::uint16_t> raw) {
    m_removal->InvalidateCache();
    m_batches.ComputeSlopes({raw.data(), raw.size()}, {}, *m_removal, *m_estimators.front().ours, m_slopes);
}

}  // namespace vosk::bench
