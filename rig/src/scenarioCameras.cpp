#include "scenarioCameras.hpp"

namespace vosk::rig {
namespace {

constexpr std::array<std::pair<const char*, CameraKind>, 4> CAMERA_KINDS{{{"lisa_wfs", CameraKind::LisaWfs},
                                                                          {"lisa", CameraKind::Lisa},
                                                                          {"marana", CameraKind::Marana},
                                                                          {"alice", CameraKind::Alice}}};

constexpr std::uint32_t MARANA_SIZE = 2048;

defs::Camera ReadCameraId(const Section& section) {
    std::string id;
    section.Read("camera", id);
    const auto found = defs::CAMERAS.find(id);
    if (found == defs::CAMERAS.end()) section.Fail(fmt::format("there is no camera '{}'", id));
    return found->second;
}

PixelWindow ReadWindow(const Section& section) {
    std::array<std::uint32_t, 4> values{0, 0, MARANA_SIZE, MARANA_SIZE};
    section.ReadNumbers("window", values);
    const auto [x, y, width, height] = values;
    if (width == 0 || height == 0 || x > MARANA_SIZE || y > MARANA_SIZE || width > MARANA_SIZE - x ||
        height > MARANA_SIZE - y)
        section.Fail("'window' must be x, y, width and height of a part of the sensor");
    return {x, y, width, height};
}

}  // namespace

void ReadBox(const Section& section, std::array<std::uint32_t, 2>& box) {
    section.ReadNumbers("box", box);
    if (box[0] % 2 != 0 || box[1] % 2 != 0) section.Fail("the sides of a 'box' must be even");
}

CameraSettings ReadCamera(const Section& section) {
    CameraSettings camera;
    camera.camera = ReadCameraId(section);
    section.ReadName("kind", CAMERA_KINDS, camera.kind);
    const bool is_wfs = camera.kind == CameraKind::LisaWfs;
    const bool is_pds = camera.camera == defs::Camera::IMG_PDS;
    if (is_wfs != (camera.camera >= defs::Camera::WFS_GP1) || is_pds != (camera.kind == CameraKind::Marana))
        section.Fail("a camera of this kind can't have this name");
    section.ReadInRange("rate", camera.rate, 0.5, 2000.0);
    section.ReadDuration("transfer", camera.transfer);
    if (camera.transfer > camera.Period()) section.Fail("'transfer' must be shorter than the period");
    section.ReadInRange("pixels_per_radian", camera.pixels_per_radian, 0.0, 10.0);
    section.ReadInRange("ring", camera.ring, std::size_t{0}, std::size_t{1000});
    section.ReadInRange("subapertures", camera.subapertures, std::size_t{43}, std::size_t{1024});
    section.ReadInRange("workers", camera.workers, 1U, 64U);
    if (camera.kind == CameraKind::Marana) camera.window = ReadWindow(section);
    constexpr std::array<std::array<std::uint32_t, 2>, 4> MIDDLES{
        {{420, 408}, {420, 408}, {1024, 1024}, {120, 120}}};
    camera.reference = MIDDLES[static_cast<std::size_t>(camera.kind)];
    section.ReadNumbers("reference", camera.reference);
    ReadBox(section, camera.box);
    return camera;
}

StepAction ReadCameraStep(const Section& section) {
    const defs::Camera camera = ReadCameraId(section);
    if (section.Has("stream")) {
        bool silent = false;
        section.ReadName("stream", SILENCE, silent);
        return SetCameraSilent{camera, silent};
    }
    if (section.Has("rate")) {
        SetCameraRate change{camera, 1.0};
        section.ReadInRange("rate", change.rate, 0.5, 2000.0);
        return change;
    }
    if (!section.Has("window")) section.Fail("'camera' needs 'stream', 'rate' or 'window'");
    return SetCameraWindow{camera, ReadWindow(section)};
}

}  // namespace vosk::rig
