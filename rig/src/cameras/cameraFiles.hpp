#pragma once

// The files from which the host's cameras learn what the bench telescope's cameras are like. Made and written
// on the controlling thread, at set-up.

#include "cameras/cameraSensor.hpp"
#include "cameras/wfsGrid.hpp"

#include <cstdint>
#include <filesystem>
#include <string>

namespace vosk::rig {

// One sensor of each kind and the wavefront sensor's grid: a function of the seed and the number of
// subapertures alone.
struct CameraSet {
    CameraSensor lisa;
    CameraSensor alice;
    CameraSensor marana;
    WfsGrid grid;
};

CameraSet MakeCameraSet(std::uint64_t seed, std::size_t subapertures);

// Below `directory`:
//   data/scrambling/lisa_descrambling_vector.fits    found by the host if CFGPATH names `directory`
//   data/{lisa,alice,marana}/dark.fits, flat.fits    32-bit floats, in the coordinates of the image
//   data/lisa/rois.fits, reference_points.fits       one row a subaperture
//   data/lisa/control_matrix.fits                    from slopes to modes
//   cameras.yaml                                     all of that as sections for a configuration document
// Files that are there already are replaced, each at once. Throws std::runtime_error.
void WriteCameraFiles(const std::filesystem::path& directory, const CameraSet& cameras);

// The parts of it: dark and flat of one camera and, if it scrambles, the descrambling vector; ROIs, reference
// points and control matrix.
void WriteSensorFiles(const std::filesystem::path& directory, const CameraSensor& sensor);
void WriteGridFiles(const std::filesystem::path& directory, const WfsGrid& grid);

// What an element of a configuration document needs to know of these files, as lines of YAML; with ALICE the
// map `image_processing` of the element.
std::string SensorKeys(const std::filesystem::path& directory, const CameraSensor& sensor);
std::string GridKeys(const std::filesystem::path& directory);
// Lines further to the right.
std::string Indented(const std::string& text);

// The content of cameras.yaml.
std::string MakeCameraDocument(const std::filesystem::path& directory, const CameraSet& cameras);

}  // namespace vosk::rig
