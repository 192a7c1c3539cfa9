#include "cameras/cameraFiles.hpp"

#include "cameras/lisaReadout.hpp"
#include "files.hpp"

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>
#include <vosk/defs/sizes.hpp>

namespace vosk::rig {
namespace {

namespace fs = std::filesystem;

constexpr const char* ALICE = "alice";
constexpr const char* LISA_TABLE_FILE = "data/scrambling/lisa_descrambling_vector.fits";

// As YAML has it, whatever the directory is called.
std::string Quoted(const fs::path& file) {
    return YAML::Dump(YAML::Node(file.string()));
}

std::string BadPixelKeys(const CameraSensor& sensor) {
    std::string text = "pixel_weights: [1, 1, 1, 1, 0, 1, 1, 1, 1]\nbad_pixels: [";
    for (const BadPixel& pixel : sensor.bad_pixels)
        text += fmt::format("{}[{}, {}]", text.back() == '[' ? "" : ", ", pixel.x, pixel.y);
    return text + "]\n";
}

std::string Section(const std::string& name, const std::string& keys) {
    return name + ":\n" + Indented(keys);
}

}  // namespace

CameraSet MakeCameraSet(std::uint64_t seed, std::size_t subapertures) {
    return {MakeSensor(LisaModel(), seed), MakeSensor(AliceModel(), seed), MakeSensor(MaranaModel(), seed),
            MakeWfsGrid(subapertures, seed)};
}

std::string Indented(const std::string& text) {
    std::string result;
    for (const char letter : text) {
        if (result.empty() || result.back() == '\n') result += "  ";
        result += letter;
    }
    return result;
}

std::string SensorKeys(const fs::path& directory, const CameraSensor& sensor) {
    const std::string& name = sensor.model.name;
    const fs::path data = directory / "data" / name;
    const std::string bad_pixels = BadPixelKeys(sensor);
    return fmt::format(
        "noise_removal:\n  dark_path: {}\n  flat_path: {}\n"
        "centroiding_algorithm: {{type: tsh, treshold: {:.1f}}}\n{}",
        Quoted(data / "dark.fits"), Quoted(data / "flat.fits"), SpotThreshold(sensor.model),
        name == ALICE ? bad_pixels : Section("bad_pixel_correction", bad_pixels));
}

std::string GridKeys(const fs::path& directory) {
    const fs::path lisa = directory / "data" / "lisa";
    return fmt::format(
        "rois_path: {}\nreference_points_path: {}\ncontrol_matrix_path: {}\n"
        "modes2tt_matrix: [1, 0, 0, 1]  # the first two modes are tip and tilt, in pixels\n",
        Quoted(lisa / "rois.fits"), Quoted(lisa / "reference_points.fits"),
        Quoted(lisa / "control_matrix.fits"));
}

std::string MakeCameraDocument(const fs::path& directory, const CameraSet& cameras) {
    return fmt::format(
               "# Sections for the cameras of a configuration document. LISA's descrambling vector is found "
               "by\n"
               "# its name, {}, if CFGPATH names this directory. Those of alice stand below "
               "image_processing.\n",
               LISA_TABLE_FILE) +
           Section("lisa", SensorKeys(directory, cameras.lisa) + GridKeys(directory)) +
           Section(ALICE, SensorKeys(directory, cameras.alice)) +
           Section("marana", SensorKeys(directory, cameras.marana));
}

void WriteSensorFiles(const fs::path& directory, const CameraSensor& sensor) {
    const fs::path data = directory / "data" / sensor.model.name;
    const std::vector<std::size_t> axes{sensor.model.width, sensor.model.height};
    WriteFitsImage<float>(data / "dark.fits", sensor.Image(sensor.bias), axes);
    WriteFitsImage<float>(data / "flat.fits", sensor.Image(sensor.flat), axes);
    if (sensor.position.empty()) return;
    const std::vector<std::uint32_t> table = MakeLisaDescramblingTable();
    WriteFitsImage<std::uint32_t>(directory / LISA_TABLE_FILE, table, {table.size()});
}

void WriteGridFiles(const fs::path& directory, const WfsGrid& grid) {
    const fs::path data = directory / "data" / "lisa";
    std::vector<std::uint16_t> rois;
    std::vector<float> references;
    for (const Subaperture& sub : grid.subapertures) {
        rois.insert(rois.end(), {sub.x_start, sub.x_stop, sub.y_start, sub.y_stop});
        references.insert(references.end(), {sub.ref_x, sub.ref_y});
    }
    const std::size_t count = grid.subapertures.size();
    WriteFitsImage<std::uint16_t>(data / "rois.fits", rois, {4, count});
    WriteFitsImage<float>(data / "reference_points.fits", references, {2, count});
    // The axes are those that the reader asks for. The values stand in the order in which it applies them:
    // a run of GPAO_CMD_SIZE for each slope.
    WriteFitsImage<float>(data / "control_matrix.fits", MakeControlMatrix(grid, defs::GPAO_CMD_SIZE),
                          {2 * count, defs::GPAO_CMD_SIZE});
}

void WriteCameraFiles(const fs::path& directory, const CameraSet& cameras) {
    for (const CameraSensor* sensor : {&cameras.lisa, &cameras.alice, &cameras.marana})
        WriteSensorFiles(directory, *sensor);
    WriteGridFiles(directory, cameras.grid);
    WriteTextFile(directory / "cameras.yaml", MakeCameraDocument(directory, cameras));
}

}  // namespace vosk::rig
