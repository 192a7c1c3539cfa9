#pragma once

// vosk-rig show-frame: a frame of a simulated camera, or one that was written to a file, as a picture.

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace vosk::rig {

struct ShowFrameOptions {
    std::filesystem::path out;     // a PNG file
    std::filesystem::path frame;   // a FITS file with a raw frame; empty to render one
    std::string camera = "lisa";   // or alice, marana
    std::string view = "cleaned";  // or raw: as the camera delivers it
    std::uint64_t seed = 1;        // of sensor, noise and spots
    std::uint64_t number = 0;      // of the frame
    double motion = 0.7;           // rms by which spots are off their reference points, in pixels
    std::optional<std::array<std::size_t, 4>> region;  // x, y, width, height; else all
    int zoom = 0;                                      // 0 for as large as a screen shows
    std::size_t subapertures = 1024;
};

// Writes the picture and prints what it shows. Throws std::invalid_argument or std::runtime_error with what
// is wrong with the options or the files.
void ShowFrame(const ShowFrameOptions& options);

}  // namespace vosk::rig
