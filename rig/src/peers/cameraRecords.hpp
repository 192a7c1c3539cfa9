#pragma once

// What a camera writes down of the frames that it sent, and what was seen of the host's results.

#include "cameras/cameraScene.hpp"
#include "clock.hpp"

#include <vosk/defs/sizes.hpp>
#include <vosk/defs/valueTypes.hpp>

#include <cstdint>
#include <optional>

namespace vosk::rig {

struct FrameRecord {
    std::uint64_t number = 0;
    CameraScene::View view{};  // what it shows
    PixelWindow window;        // of the sensor
    time_point exposed;        // as its leader tells
    time_point begun;          // its first packet left
    time_point sent;           // its last one
    defs::sample_id_t sample_id = 0;
    std::optional<FaultKind> fault;
};

struct ResultRecord {
    static constexpr std::size_t NOT_KEPT = static_cast<std::size_t>(-1);

    std::uint64_t write_seq = 0;  // of the mailbox, from 1
    time_point seen;
    time_point exposed;
    defs::sample_id_t sample_id = 0;
    std::uint32_t count = 0;        // of slopes
    std::size_t slopes = NOT_KEPT;  // where they stand
};

}  // namespace vosk::rig
