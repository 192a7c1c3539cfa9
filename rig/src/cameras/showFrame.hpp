#pragma once

// vosk-rig show-frame: a frame of a simulated camera, or one that was written to a file, as a picture.

#include <cstdint>
#include <filesystem>
#include <string>

namespace vosk::rig {

struct ShowFrameOptions {
    std::filesystem::path out;    // a PNG file
    std::filesystem::path frame;  // a FITS file with a raw frame; empty to render one
    std::string camera = "lisa";  // or alice, marana
    std::uint64_t seed = 1;       // of sensor, noise and spots
};

// Writes the cleaned frame with its ROIs. Throws std::invalid_argument or std::runtime_error with what is
// wrong with the options or the files.
void ShowFrame(const ShowFrameOptions& options);

}  // namespace vosk::rig
