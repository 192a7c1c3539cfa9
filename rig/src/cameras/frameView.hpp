#pragma once

// A camera frame as a picture: counts as grey levels, regions as outlines, positions as marks, and below it
// what is what.

#include "cameras/canvas.hpp"
#include "cameras/plainCentroid.hpp"

#include <optional>
#include <string>
#include <vector>

namespace vosk::rig {

struct FrameView {
    std::vector<float> values;  // row by row
    std::size_t width = 0;
    Box region{0, 0, 0, 0};  // what is shown of it, within the frame
    int zoom = 1;            // picture pixels a frame pixel
    std::string title;

    // In the coordinates of the frame.
    std::vector<Box> outlines;
    std::vector<Spot> references;
    std::vector<Spot> truths;
    std::vector<Spot> founds;
};

// Below this zoom marks would hide what they mark, and are left out.
inline constexpr int MARKS_FROM_ZOOM = 4;

// Black is below nearly all of the sky, white the peak of the middling outlined spot (without outlines, what
// one pixel in 500 exceeds); the curve between them lifts faint light as far as the sky stays dark.
Canvas DrawFrame(const FrameView& view);

}  // namespace vosk::rig
