#pragma once

// What the rig makes of a raw frame by itself, in the plainest way: it shares no code with the library, so
// that a picture shows where the spots are whatever the library thinks.

#include "cameras/cameraSensor.hpp"
#include "cameras/frameRenderer.hpp"

#include <cstdint>
#include <span>
#include <vector>

namespace vosk::rig {

// A rectangle of the image, its far edges excluded.
struct Box {
    std::size_t x_start;
    std::size_t x_stop;
    std::size_t y_start;
    std::size_t y_stop;
};

// The image in the camera's counts, row by row, out of a raw frame of the whole sensor.
std::vector<float> DescrambleFrame(const CameraSensor& sensor, std::span<const std::uint16_t> raw);

// The same without bias and drift, flattened, bad pixels replaced by the mean of their neighbours.
std::vector<float> CleanFrame(const CameraSensor& sensor, std::span<const std::uint16_t> raw);

// Five times the noise of the sky, above the sky: what a pixel of a spot should reach.
double SpotThreshold(const CameraModel& model);

// The centre of gravity of the pixels from the threshold on; a flux of 0 in the box's middle if there are
// none.
Spot FindSpot(const std::vector<float>& cleaned, std::size_t width, const Box& box, double threshold);

}  // namespace vosk::rig
