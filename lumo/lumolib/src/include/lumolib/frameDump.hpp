#pragma once

// Raw frames as FITS files below /tmp, for whoever puts a camera into service. A file appears whole or not at
// all, and takes the place of one of its name, a link included. Any thread, but not twice for one frame;
// std::exception if a file can't be written.

#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/sizes.hpp>

#include <cstdint>
#include <span>

namespace vosk::lumo {

// A LISA frame, as it came and with its pixels in order: "lisa_input_<camera>_<sample>_scrambled.fits" and
// "..._unscrambled.fits". The former is written first.
void DumpFrameToFits(std::span<const std::uint16_t> frame, defs::Camera camera, defs::sample_id_t sample_id);

// The whole buffer of a MARANA frame: "marana_input_<camera>_<sample>.fits".
void DumpMaranaFrameToFits(std::span<const std::uint16_t> frame, defs::Camera camera,
                           defs::sample_id_t sample_id);

}  // namespace vosk::lumo
