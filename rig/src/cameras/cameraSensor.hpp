#pragma once

// The cameras of the bench telescope: what each kind is like, and one sensor of it with its bias pattern,
// flat field and bad pixels. The same seed gives the same sensor, bit for bit, so that calibration files and
// frames fit each other without a file between them. Made at set-up, constant afterwards, shared freely.

#include <vosk/defs/alignedFrame.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vosk::rig {

// The kinds of camera. Values are in counts, rates in counts a frame, lengths in pixels.
struct CameraModel {
    std::string name;
    std::size_t width = 0;
    std::size_t height = 0;
    std::size_t prescan = 0;       // values that a row delivers beside its pixels
    std::size_t dark_columns = 0;  // at either edge, which see no light
    std::size_t taps = 1;          // a raw position's tap is its remainder by this
    std::size_t bad_pixels = 0;

    float bias_level = 0.0F;
    float tap_spread = 0.0F;    // rms of the taps' levels
    float bias_pattern = 0.0F;  // rms from pixel to pixel
    float flat_pattern = 0.0F;  // rms from pixel to pixel, of 1
    float vignetting = 0.0F;    // what the corners lose, of 1
    float read_noise = 0.0F;    // rms
    float gain = 1.0F;          // counts a photon
    float background = 0.0F;    // of the sky, where the flat is 1
    float drift_swing = 0.0F;   // peak of the bias level's slow drift
    float drift_noise = 0.0F;   // rms of what each group of 4 rows drifts by itself, from frame to frame
    double spot_rms = 1.0;      // half width of a spot
    double spot_flux = 0.0;     // of an ordinary spot

    std::size_t Stride() const { return width + prescan; }
    std::size_t RawSize() const { return Stride() * height; }
};

CameraModel LisaModel();    // 840 x 816 behind 960 x 816 scrambled values
CameraModel AliceModel();   // 240 x 240
CameraModel MaranaModel();  // 2048 x 2048
// "lisa", "alice" or "marana"; std::invalid_argument for anything else.
CameraModel ModelNamed(const std::string& name);

// Five times the noise of the sky, above the sky: what a pixel of a spot should reach.
double SpotThreshold(const CameraModel& model);

struct BadPixel {
    std::uint32_t x;
    std::uint32_t y;
    bool hot;  // erratic and bright; else dead, at the level of the bias
};

// One sensor. Its fields hold a row of the image, then what the row delivers beside it: Stride() values a
// row.
struct CameraSensor {
    CameraModel model;
    defs::AlignedFrame<float> bias;
    defs::AlignedFrame<float> flat;         // as calibration finds it: 1 where there is nothing to find
    defs::AlignedFrame<float> sensitivity;  // the flat, but 0 where no light counts
    std::vector<BadPixel> bad_pixels;       // none next to another, none at the edge
    std::vector<std::uint32_t> position;    // in the raw frame; empty if that is the image row by row

    // A field without what stands beside the image: width x height values.
    std::vector<float> Image(const defs::AlignedFrame<float>& field) const;
};

CameraSensor MakeSensor(const CameraModel& model, std::uint64_t seed);

}  // namespace vosk::rig
