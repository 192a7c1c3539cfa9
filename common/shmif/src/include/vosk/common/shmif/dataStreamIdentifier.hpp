#pragma once

// The number and the name of each data stream in telemetry. A reader of telemetry outside the process knows a
// stream by its number, so numbers are never given to another stream.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vosk::common::shmif {

enum class DataStreamIdentifier : std::uint32_t {
    M4_INPUT = 0,
    M4_OUTPUT = 1,
    M5_INPUT = 2,
    M5_OUTPUT = 3,
    MS_OUTPUT = 4,
    IMG_PDS = 5,
    WFS_PDS = 6,
    IMG_GP1 = 7,
    IMG_GP2 = 8,
    IMG_GP3 = 9,
    WFS_GP1 = 10,
    WFS_GP2 = 11,
    WFS_GP3 = 12,
    PFS_INPUT = 13,
    PFS_OUTPUT = 14,
    AO_WAVEFRONT_CMD_INPUT = 15,
    AO_OUTPUT = 16,
    ECMWF_SIM_INPUT = 17,
    FS_INPUT = 18,
    FS_OUTPUT = 19,
};

inline constexpr std::size_t DATA_STREAM_COUNT = 20;

// The enumerator's own name; "UNKNOWN" for a number that no stream has.
constexpr std::string_view GetStreamName(DataStreamIdentifier stream) noexcept {
    constexpr std::array<std::string_view, DATA_STREAM_COUNT> NAMES{
        "M4_INPUT",  "M4_OUTPUT",       "M5_INPUT",   "M5_OUTPUT",
        "MS_OUTPUT", "IMG_PDS",         "WFS_PDS",    "IMG_GP1",
        "IMG_GP2",   "IMG_GP3",         "WFS_GP1",    "WFS_GP2",
        "WFS_GP3",   "PFS_INPUT",       "PFS_OUTPUT", "AO_WAVEFRONT_CMD_INPUT",
        "AO_OUTPUT", "ECMWF_SIM_INPUT", "FS_INPUT",   "FS_OUTPUT"};
    const auto number = static_cast<std::size_t>(stream);
    return number < NAMES.size() ? NAMES[number] : "UNKNOWN";
}

static_assert(GetStreamName(DataStreamIdentifier::IMG_GP3) == "IMG_GP3");
static_assert(GetStreamName(DataStreamIdentifier::PFS_OUTPUT) == "PFS_OUTPUT");
static_assert(GetStreamName(DataStreamIdentifier::FS_OUTPUT) == "FS_OUTPUT");

}  // namespace vosk::common::shmif
