#pragma once

// Renders what a camera would deliver: spots on a sky background through the flat field, photon and read
// noise, the bias with its drift, bad pixels, in the camera's own order. A frame is a function of the sensor,
// the seed, its number and its spots alone, so that whoever checks it later can make the same bits again.
//
// Photon noise is taken as normal, of the variance that it has: right to a few per cent from ten photons a
// pixel on. Noise comes from one long table, of which each row of each frame takes a window of its own.
//
// One object a thread; Render allocates nothing.

#include "cameras/cameraSensor.hpp"
#include "cameras/spotProfile.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace vosk::rig {

struct Spot {
    double x;  // in pixels of the image, in which the middle of pixel c is at c
    double y;
    double flux;  // counts that it leaves where the flat is 1; not negative
};

// The part of the sensor that is read out.
struct ReadoutWindow {
    std::size_t x;
    std::size_t y;
    std::size_t width;
    std::size_t height;
};

class FrameRenderer {
public:
    static constexpr std::size_t GROUP_ROWS = 4;  // rows that drift together

    FrameRenderer(std::shared_ptr<const CameraSensor> sensor, std::uint64_t seed);

    // Writes frame `number` into `raw`, of the model's RawSize(). Spots may lie anywhere; what falls beside
    // the sensor is lost. std::invalid_argument on a `raw` of another size.
    void Render(std::uint64_t number, std::span<const Spot> spots, std::span<std::uint16_t> raw);

    // The same for a part of the sensor: its rows stand packed at the start of `raw`, the rest of which stays
    // as it is. std::invalid_argument on a window beyond the sensor, or for a camera that scrambles.
    void Render(std::uint64_t number, std::span<const Spot> spots, const ReadoutWindow& window,
                std::span<std::uint16_t> raw);

    // How far the bias of a group of rows is off in a frame, in counts.
    float Drift(std::uint64_t number, std::size_t group) const;

    const CameraSensor& GetSensor() const { return *m_sensor; }

private:
    static constexpr std::size_t NOISE_WINDOWS = std::size_t{1} << 18U;
    static constexpr std::uint64_t DRIFT_PERIOD = 4096;  // frames

    void RequireSize(std::size_t size) const;
    void AddSpot(const Spot& spot);
    void RenderRowOf(std::uint64_t number, std::size_t row);  // into m_counts; darkens the row
    void Darken(std::size_t row);

    const std::shared_ptr<const CameraSensor> m_sensor;
    const std::uint64_t m_seed;
    const SpotProfile m_profile;
    std::vector<float> m_noise;            // constant after construction; longer than a row by NOISE_WINDOWS
    std::vector<std::size_t> m_first_bad;  // of each row, into the sensor's bad pixels; and the end

    // Work space. The light of spots is zero outside of Render; m_lit tells of each row whether it holds any.
    defs::AlignedFrame<float> m_light;
    std::vector<char> m_lit;
    std::vector<float> m_column_shares;
    std::vector<float> m_row_shares;
    defs::AlignedFrame<std::uint16_t> m_counts;
};

}  // namespace vosk::rig
